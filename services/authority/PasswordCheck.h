#pragma once

#include "services/authority/helper_messages.h"

namespace vnt {

/// Asks PAM for the order's name and password, by the service file "vantora", then the account and its groups. Every
/// refusal looks alike and comes at a whole second after the beginning, whatever the reason. Runs in a helper process:
/// PAM's modules and the user database may wait, keep memory and crash.
CheckResult checkCredentials(const CheckOrder& order);

/// The helper's main for kCheckMode.
int runCheckHelper();

/// Names of the groups of a user of the machine, the primary one included. Also for the prompt.
std::vector<std::string> groupNamesOf(const std::string& userName);

} // namespace vnt
