#pragma once
// The one exception type that vandrel throws for its own errors.
#include "vandrel/platform/Exception.h"

class wSimulationException : public Exception {
public:
    using Exception::Exception;
};
