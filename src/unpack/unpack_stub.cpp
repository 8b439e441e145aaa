// Placeholder until the demultiplexing family lands: every call fails cleanly.
#include "frame/error.h"
#include "unpack/unpack.h"
using quorvel::Fail;
void* CAVFormat_UNPack::AVFormat_UNPack_Init(AVFORMAT_PROGRESS_CALLBACK, void*) { quorvel::ClearError(); Fail(ERROR_AVFORMAT_PACKET_MALLOC); return nullptr; }
bool CAVFormat_UNPack::AVFormat_UNPack_Input(void*, const char*, AVFORMAT_IO_FUNCTION, void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Output(void*, AVCODEC_FORMATINFO***, int) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Start(void*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Read(void*, int*, unsigned char*, int*, AVCODEC_PACKETINFO*, AVCODEC_TIMEBASE*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_GetStatus(void*, bool*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Suspend(void*, bool) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Seek(void*, int, unsigned long long) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_PARAMETER); }
bool CAVFormat_UNPack::AVFormat_UNPack_Stop(void*) noexcept { quorvel::ClearError(); return true; }
bool CAVFormat_UNPack::AVFormat_UNPack_GetAVCodec(void*, int, void**, AVCODEC_TIMEBASE*) { quorvel::ClearError(); return Fail(ERROR_AVFORMAT_PACKET_SEEK); }
int CAVFormat_UNPack::AVFormat_UNPack_Thread(void*) { return 0; }
