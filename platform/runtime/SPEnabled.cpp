// SPEnabled: the out-of-line destructor anchors the class's type information
// in the runtime library, so dynamic casts work across libraries.
#include "runtime/SPEnabled.h"

SPEnabled::~SPEnabled() = default;
