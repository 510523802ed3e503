#include "check/check.h"

#include <algorithm>
#include <new>

#include "check/check_control.h"
#include "check/check_file.h"
#include "check/check_log.h"
#include "check/check_pending.h"
#include "check/check_table.h"

namespace zelta {

namespace {

using check::CheckFile;
using check::ControlFacts;
using check::Findings;

/// Everything that the control file leads to.
void checkFiles(Findings& findings, const std::u16string& folder, const std::u16string& baseName,
                const ControlFacts& facts) {
  const auto pending = facts.usable ? check::findPending(folder, baseName, facts)
                                    : std::vector<check::PendingSection>{};
  for (const check::DirectoryTable& table : facts.tables) {
    if (findings.full()) return;
    check::checkTable(findings, folder, table, pending);
  }
  if (facts.usable && !findings.full()) check::checkLogs(findings, folder, baseName, facts);
}

}  // namespace

std::vector<CheckFinding> checkDatabase(const std::u16string& controlPath,
                                        const CheckOptions& options, CheckCounts* counts) {
  Findings findings(options);
  CheckFile control(controlPath);
  if (!control.isOpen()) {
    findings.damage(control, 0, "file cannot be opened, code " + check::text(control.failure()));
    return std::move(findings.list);
  }
  try {
    ControlFacts facts;
    check::checkControl(findings, control, facts);
    const std::size_t separator = controlPath.find_last_of(u"/\\");
    const std::size_t name = separator == std::u16string::npos ? 0 : separator + 1;
    const std::size_t dot = std::max(name, std::min(controlPath.rfind(u'.'), controlPath.size()));
    checkFiles(findings, controlPath.substr(0, name), controlPath.substr(name, dot - name), facts);
  } catch (const std::bad_alloc&) {
    findings.damage(control, 0, "memory is exhausted: the check is not complete");
  }
  if (counts != nullptr) *counts = findings.counts;
  return std::move(findings.list);
}

std::string describe(const CheckFinding& finding) {
  const char* kind = finding.kind == CheckKind::damage        ? "damage"
                     : finding.kind == CheckKind::pendingWork ? "pending"
                                                              : "remains";
  return std::string(kind) + ": " + finding.file + " at " + std::to_string(finding.offset) + ": " +
         finding.what;
}

}  // namespace zelta
