#pragma once
// The runtime tests' short names for the shared scheme helpers.
#include "support/SchemeFiles.h"

namespace rt {
using testutil::blockNamed;
using testutil::Builder;
}  // namespace rt
