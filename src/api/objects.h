// SPDX-License-Identifier: MIT
// The four process-wide family objects that the exported functions call.
#pragma once

#include "convert/convert.h"
#include "link/link.h"
#include "packet/packet.h"
#include "unpack/unpack.h"

extern CAVFormat_Convert m_FileConvert;
extern CAVFormat_Packet m_FilePacket;
extern CAVFormat_UNPack m_FileUNPack;
extern CAVFormat_Link m_FileLink;
