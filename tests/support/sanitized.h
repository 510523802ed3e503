// Whether the tests run under the sanitizer of addresses, which makes a process costly.

#ifndef ZELTA_TESTS_SUPPORT_SANITIZED_H
#define ZELTA_TESTS_SUPPORT_SANITIZED_H

#if defined(__SANITIZE_ADDRESS__)
#define ZELTA_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZELTA_TEST_SANITIZED 1
#endif
#endif
#ifndef ZELTA_TEST_SANITIZED
#define ZELTA_TEST_SANITIZED 0
#endif

#endif  // ZELTA_TESTS_SUPPORT_SANITIZED_H
