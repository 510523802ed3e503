// Processes that go on as other users of the machine, which the system's administrator alone can
// try.

#ifndef ZELTA_TESTS_SUPPORT_USERS_H
#define ZELTA_TESTS_SUPPORT_USERS_H

#include <grp.h>
#include <unistd.h>

#include <vector>

namespace zelta::testing {

inline constexpr uid_t kAlice = 60001;
inline constexpr uid_t kBob = 60002;
inline constexpr gid_t kTeam = 60010;

inline bool isAdministrator() { return geteuid() == 0; }

/// Makes this process another user's for good.
inline bool become(uid_t user, gid_t group, const std::vector<gid_t>& groups = {}) {
  return setgroups(groups.size(), groups.data()) == 0 && setresgid(group, group, group) == 0 &&
         setresuid(user, user, user) == 0;
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_USERS_H
