// SPDX-License-Identifier: MIT
#include "api/objects.h"

// One translation unit, so that they are constructed at load in this order
// and destroyed in the reverse order at unload.
CAVFormat_Convert m_FileConvert;
CAVFormat_Packet m_FilePacket;
CAVFormat_UNPack m_FileUNPack;
CAVFormat_Link m_FileLink;
