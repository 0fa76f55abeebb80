#pragma once

#include <Vantora/Rights.h>

#include "platform/authorization/Authorization.h"

namespace vnt {

inline constexpr char kAnalysisRight[] = "quillon.process.analysis";
inline constexpr char kKillRight[] = "quillon.process.kill";
inline constexpr char kTaskPortRight[] = "system.privilege.taskport.debug";

/// Makes sure that the right is defined with this timeout; says on standard error why it could not be, and nothing
/// more: the request that follows simply fails or succeeds.
void AzlCreateRight(const char* rightName, int timeoutSec);

/// 1 when the reference holds the right now: kTaskPortRight for `which` 1, kAnalysisRight for 2. Anything else is 0 and
/// a complaint on standard error.
int _VerifyAuthorization(AuthorizationRef authorization, int which);

} // namespace vnt
