// The order of ledger and firewall: told before a rule is there, forgotten when it is gone.
#include "refhost/parent/RuleExecutor.h"

#include "refhost/framework/HostLog.h"

namespace parent {

std::int32_t RuleExecutor::execute(ZAN_COMMANDS command, const IdleTimerRule& rule) {
  return IdleTimerRule::actionOf(command) == IdleTimerRule::Action::kAdd ? add(rule) : clear(rule);
}

std::int32_t RuleExecutor::add(const IdleTimerRule& rule) {
  // One that may still be there must stay in the ledger, and there is room for one only.
  const std::int32_t cleared = clear(rule);
  if (!Firewall::isDefinite(cleared)) return cleared;
  if (!keeper_.expect(rule)) return kNotTaken;
  const std::int32_t result = firewall_.add(rule);
  const bool leftNothing = Firewall::isDefinite(result) || result == Firewall::kNotRun;
  if (result != 0 && leftNothing) keeper_.forget(rule);
  HOST_LOG(kLogTrace, "rule added: %s: %d", rule.text().c_str(), result);
  return result;
}

std::int32_t RuleExecutor::clear(const IdleTimerRule& rule) {
  const auto present = keeper_.presentRule(rule);
  if (!present) {
    HOST_LOG(kLogTrace, "no rule to delete: %s", rule.text().c_str());
    return 0;
  }
  const std::int32_t result = firewall_.remove(*present);
  if (Firewall::isDefinite(result)) keeper_.forget(*present);
  HOST_LOG(kLogTrace, "rule deleted: %s: %d", present->text().c_str(), result);
  return result;
}

}  // namespace parent
