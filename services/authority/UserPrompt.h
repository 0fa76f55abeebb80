#pragma once

#include "services/authority/helper_messages.h"

namespace vnt {

/// The helper's main for kAskMode. Becomes the asking user for good before anything of that user's is read, then shows
/// the prompt on the display or terminal of the asking process. Without either, or without a program that shows it,
/// the result is errAuthorizationInteractionNotAllowed.
int runAskHelper();

} // namespace vnt
