#include "Base/Orp/Ptr.h"

namespace Orp {

bool VFPtrInterface::threadSafePointers_ = true;

PtrInterface::~PtrInterface() = default;

}  // namespace Orp
