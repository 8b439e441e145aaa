// Placeholder until the multiplexing family lands: every call fails cleanly.
#include "frame/error.h"
#include "packet/packet.h"
using quorvel::Fail;
void* CAVFormat_Packet::AVFormat_Packet_Init(AVFORMAT_PROGRESS_CALLBACK, void*) { quorvel::ClearError(); Fail(ERROR_AVFORMAT_PACKET_MALLOC); return nullptr; }
bool CAVFormat_Packet::AVFormat_Packet_Output(void*, const char*, double, double, AVFORMAT_IO_FUNCTION, void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_Input(void*, const char*, AVFORMAT_IO_FUNCTION, void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_Start(void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_GetStatus(void*, bool*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_Suspend(void*, bool) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_Stop(void*) noexcept { quorvel::ClearError(); return true; }
bool CAVFormat_Packet::AVFormat_Packet_StreamCreate(void*, void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_Packet::AVFormat_Packet_StreamWrite(void*, int, const unsigned char*, int, AVCODEC_TIMEBASE*, AVCODEC_PACKETINFO*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
int CAVFormat_Packet::AVFormat_Packet_Thread(void*) { return 0; }
