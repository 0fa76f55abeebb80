#pragma once

#include <string>

#include "platform/base/Status.h"

/// Names of the system's namespace that an administrator added: `<directory>/.jobs/<name>` holds the path of the
/// program that serves the name. Written by root; lasts as long as the directory, normally until the machine restarts.
namespace vnt {

/// Registers a job under the name's lock. Errors: kInvalid (no service name, no usable path), kExists (a name of our
/// own, a registered one, or one that is served now), kDenied (checkTrustedProgram(), or not root), kTimedOut (somebody
/// holds the name's lock), kTooLarge (too many jobs), kSystem.
Status registerJob(const std::string& name, const std::string& program);

/// The program of a registered name, checked again. kNotFound without a job, kDenied when file or program may have been
/// written by anybody but root.
Result<std::string> programOfJob(const std::string& name);

/// Fine for root to execute: an absolute path without "." and ".." and symbolic links, an executable regular file; it
/// and every directory above belong to root and nobody else may write to them. kInvalid, kNotFound, kDenied.
Status checkTrustedProgram(const std::string& path);

} // namespace vnt
