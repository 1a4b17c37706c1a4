#include "OrvUtility/CRef.h"

namespace OrvUtility {
CRef::~CRef() = default;
} // namespace OrvUtility
