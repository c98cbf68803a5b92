// The control interface of ftdi_sim.h over the one simulator of the process.

#include <cstring>
#include <string>

#include "ftdi_sim.h"
#include "simulator.h"

using ftdisim::Simulator;

namespace {

int result(bool ok) {
    return ok ? 0 : -1;
}

std::string name(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

extern "C" {

FTDISIM_API int FtdiSim_Reset(void) {
    Simulator::instance().reset();
    return 0;
}

FTDISIM_API int FtdiSim_AddChip(const char* line) {
    std::string error;
    return result(line != nullptr && Simulator::instance().addChip(line, error));
}

FTDISIM_API int FtdiSim_Unplug(const char* serial) {
    return result(Simulator::instance().unplug(name(serial)));
}

FTDISIM_API int FtdiSim_Feed(const char* serial, const void* data, uint32_t length) {
    return result(Simulator::instance().feed(name(serial), static_cast<const std::uint8_t*>(data), length));
}

FTDISIM_API int FtdiSim_SignalEvent(const char* serial) {
    return result(Simulator::instance().signalEvent(name(serial)));
}

FTDISIM_API uint32_t FtdiSim_TakeWritten(const char* serial, void* buffer, uint32_t capacity) {
    return static_cast<uint32_t>(
        Simulator::instance().takeWritten(name(serial), static_cast<std::uint8_t*>(buffer), capacity));
}

FTDISIM_API int FtdiSim_SetEcho(const char* serial, int on) {
    return result(Simulator::instance().setEcho(name(serial), on != 0));
}

FTDISIM_API int FtdiSim_Stream(const char* serial, uint64_t bytes) {
    return result(Simulator::instance().stream(name(serial), bytes));
}

FTDISIM_API int FtdiSim_Fail(const char* entryPoint, uint32_t status, int times) {
    return result(Simulator::instance().fail(name(entryPoint), status, times));
}

FTDISIM_API size_t FtdiSim_CallLog(const char* serial, char* buffer, size_t capacity) {
    const auto log = Simulator::instance().callLog(name(serial));
    if (!log) {
        return 0;
    }
    if (buffer == nullptr || log->size() + 1 > capacity) {
        return log->size() + 1;
    }
    std::memcpy(buffer, log->c_str(), log->size() + 1);
    return log->size();
}

FTDISIM_API int FtdiSim_ClearCallLog(const char* serial) {
    return result(Simulator::instance().clearCallLog(name(serial)));
}

FTDISIM_API uint32_t FtdiSim_OpenHandles(void) {
    return Simulator::instance().openHandles();
}

FTDISIM_API uint32_t FtdiSim_ChipIdOfHandle(void* handle, uint32_t* chipId) {
    return Simulator::instance().chipId(handle, chipId);
}

FTDISIM_API uint32_t FtdiSim_ChipCount(uint32_t* count) {
    return Simulator::instance().chipCount(count);
}

}  // extern "C"
