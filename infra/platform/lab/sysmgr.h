// The switch's VDCs, as the parts of the lab's system manager see them.
#ifndef LAB_SYSMGR_H
#define LAB_SYSMGR_H

#include "platform/types.h"

namespace lab {

// Whether the switch has this VDC. 32 bits wide, as a request names it: 65537 is not VDC 1.
bool sysmgr_has_vdc(uint32 vdc);

} // namespace lab

#endif
