// The handle, databases and transactions. Each operation clears the last failure, tests the state
// of the handle, and calls one worker. A handle whose construction found no memory answers
// kNullHandle to everything.

#include "api/operation.h"
#include "frame/lifecycle.h"
#include "frame/parameters.h"
#include "frame/upcalls.h"
#include "transaction/commit/abort.h"
#include "transaction/commit/commit.h"
#include "transaction/log/log_parameters.h"
#include "transaction/slots/begin.h"

using namespace zelta;

CZELTA::CZELTA() : metaData_(new (std::nothrow) MetaData), tables_(nullptr) {}

CZELTA::~CZELTA() {
  if (metaData_ == nullptr) return;
  CloseDatabase();
  delete metaData_;
  metaData_ = nullptr;
}

CZELTA& CZELTA::operator=(const CZELTA& other) = default;

unsigned long long CZELTA::Version() { return 0x0004'0005'0009'0000; }

unsigned long long CZELTA::GetErrorMessage(const char16_t** message) {
  if (message == nullptr) return 0;
  if (metaData_ == nullptr) {
    *message = u"Database is not initialised";
  } else {
    *message = metaData_->errorMessage != nullptr ? metaData_->errorMessage : u"No error message";
  }
  return 0;
}

unsigned long long CZELTA::CreateDatabase(const char16_t* path) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.parameter(path != nullptr).closed().failed()) return check.word();
  return perform(*metaData_, false, [&] { return createDatabase({*metaData_, tables_}, path); });
}

unsigned long long CZELTA::OpenDatabase(const char16_t* path) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.parameter(path != nullptr).closed().failed()) return check.word();
  return perform(*metaData_, false, [&] { return openDatabase({*metaData_, tables_}, path); });
}

unsigned long long CZELTA::CloseDatabase() {
  if (metaData_ == nullptr) return kNullHandle;
  static_cast<void>(perform(*metaData_, false, [&] {
    closeDatabase({*metaData_, tables_});
    return Result{};
  }));
  clearError(*metaData_);
  return 0;
}

unsigned long long CZELTA::GetDatabaseMembers(DatabaseMember* members, unsigned int* size) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.transaction().parameter(size != nullptr).failed()) return check.word();
  return perform(*metaData_, false, [&] { return getDatabaseMembers(*metaData_, members, size); });
}

unsigned long long CZELTA::GetDatabaseParameter(Parameter parameter, long long* value) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.parameter(value != nullptr).failed()) return check.word();
  return perform(*metaData_, false,
                 [&] { return getDatabaseParameter(*metaData_, parameter, value); });
}

unsigned long long CZELTA::SetDatabaseParameter(Parameter parameter, long long value) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.exclusive().mayWrite().failed()) return check.word();
  return perform(*metaData_, false,
                 [&] { return setDatabaseParameter(*metaData_, parameter, value); });
}

unsigned long long CZELTA::BeginTransaction(Mode mode, unsigned int timeout) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  const bool known = mode == TransactionShared || mode == TransactionExclusive ||
                     mode == TransactionRead || mode == TransactionExclusiveRead;
  StateCheck check(*metaData_);
  if (check.open().noTransaction().parameter(known).failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return beginTransaction({*metaData_, tables_}, mode, timeout);
  });
}

unsigned long long CZELTA::EndTransaction() {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  return perform(*metaData_, true, [&] { return endTransaction({*metaData_, tables_}); });
}

unsigned long long CZELTA::CommitTransaction(bool releaseLocks) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.transaction().mayWrite().failed()) return check.word();
  // A commit that is decided, but was not carried out, tells why in its text alone.
  return performKeepingText(*metaData_, true, [&] {
    return commitTransaction({*metaData_, tables_}, releaseLocks);
  });
}

unsigned long long CZELTA::AbortTransaction(bool releaseLocks) {
  clearError(*metaData_);
  return perform(*metaData_, true, [&] {
    return abortTransaction({*metaData_, tables_}, releaseLocks);
  });
}

unsigned long long CZELTA::AppendTransaction(unsigned int, long long, unsigned int, long long,
                                             const void*) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  return check.exclusive().mayWrite().require(false, Own::context).word();
}

unsigned long long CZELTA::WaitNextCommit(unsigned int* file, long long* position,
                                          unsigned int* transaction, long long* size, void*,
                                          unsigned int) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  const bool given =
      file != nullptr && position != nullptr && transaction != nullptr && size != nullptr;
  StateCheck check(*metaData_);
  return check.open().parameter(given).require(false, Own::context).word();
}
