// Placeholder until the concatenation family lands: every call fails cleanly.
#include "frame/error.h"
#include "link/link.h"
using quorvel::Fail;
void* CAVFormat_Link::AVFormat_Link_Init(AVFORMAT_PROGRESS_CALLBACK, void*) { quorvel::ClearError(); Fail(ERROR_AVFORMAT_LINK_MALLOC); return nullptr; }
bool CAVFormat_Link::AVFormat_Link_Output(void*, const char*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_LINK_PARAMETER); }
bool CAVFormat_Link::AVFormat_Link_Input(void*, const char*, double, double, int, int) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_LINK_PARAMETER); }
bool CAVFormat_Link::AVFormat_Link_Start(void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_LINK_PARAMETER); }
bool CAVFormat_Link::AVFormat_Link_GetStatus(void*, bool*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Link::AVFormat_Link_Suspend(void*, bool) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Link::AVFormat_Link_Stop(void*) noexcept { quorvel::ClearError(); return true; }
int CAVFormat_Link::AVFormat_Link_Thread(void*) { return 0; }
