// The Windows communication calls behind IoSerial: the port opened for
// overlapped I/O, a receiving thread that waits for the stop event, the
// communication event and the read completion, and overlapped writes.
#include <windows.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "serial/io_serial.h"

namespace kmio {

namespace {

constexpr DWORD kReadBytes = 1024;

HANDLE eventOf(const WakeEvent& event) {
    return reinterpret_cast<HANDLE>(event.native());
}

HANDLE manualResetEvent() {
    return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

// Builds the line settings from "<baud>,n,8,1"; with xonxoff, output flow
// control by CTS and DSR goes, DTR and RTS are simply held on, and XON/XOFF
// runs in both directions.
bool configureLine(HANDLE port, const SerialOpenOptions& options) {
    DCB settings{};
    settings.DCBlength = sizeof settings;
    const std::string text = std::to_string(options.baudrate) + ",n,8,1";
    if (!::BuildCommDCBA(text.c_str(), &settings)) {
        return false;
    }
    if (options.xonxoff) {
        settings.fOutxCtsFlow = FALSE;
        settings.fOutxDsrFlow = FALSE;
        settings.fDtrControl = DTR_CONTROL_ENABLE;
        settings.fRtsControl = RTS_CONTROL_ENABLE;
        settings.fOutX = TRUE;
        settings.fInX = TRUE;
    }
    return ::SetCommState(port, &settings) != 0;
}

// A read returns at once with what is buffered, or waits up to 1000 ms for
// the first byte; writes have no time limit.
bool setTimeouts(HANDLE port) {
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = MAXDWORD;
    timeouts.ReadTotalTimeoutMultiplier = MAXDWORD;
    timeouts.ReadTotalTimeoutConstant = 1000;
    timeouts.WriteTotalTimeoutMultiplier = 0;
    timeouts.WriteTotalTimeoutConstant = 0;
    return ::SetCommTimeouts(port, &timeouts) != 0;
}

}  // namespace

// The port handle, the three manual-reset events and the overlapped records
// bound to them. The records must not go while the system may still write
// into them, so the deleter cancels what is outstanding and waits for it.
struct IoSerial::Port {
    HANDLE file = INVALID_HANDLE_VALUE;
    HANDLE readDone = nullptr;
    HANDLE writeDone = nullptr;
    HANDLE commEvent = nullptr;
    OVERLAPPED read{};
    OVERLAPPED write{};
    OVERLAPPED comm{};
    DWORD commMask = 0;
    bool commArmed = false;
    bool readIssued = false;

    ~Port() {
        if (file != INVALID_HANDLE_VALUE) {
            ::CancelIoEx(file, nullptr);
            DWORD ignored = 0;
            if (commArmed) {
                ::GetOverlappedResult(file, &comm, &ignored, TRUE);
            }
            if (readIssued) {
                ::GetOverlappedResult(file, &read, &ignored, TRUE);
            }
            ::CloseHandle(file);
        }
        for (HANDLE event : {writeDone, readDone, commEvent}) {
            if (event != nullptr) {
                ::CloseHandle(event);
            }
        }
    }

    // Arms the wait for the next communication event; a true return (an
    // event already there) is taken as a failure, as the receiving thread
    // expects the pending case only.
    bool armCommWait() {
        commArmed = true;
        return ::WaitCommEvent(file, &commMask, &comm) == 0;
    }

    bool startRead(std::uint8_t* buffer) {
        readIssued = true;
        return ::ReadFile(file, buffer, kReadBytes, nullptr, &read) != 0;
    }
};

void IoSerial::PortDeleter::operator()(Port* port) const noexcept {
    delete port;
}

std::uint32_t IoSerial::openPort(const std::string& portName, const SerialOpenOptions& options) {
    const std::string path = "\\\\.\\" + portName;
    std::unique_ptr<Port, PortDeleter> port(new Port);
    port->file = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED, nullptr);
    if (port->file == INVALID_HANDLE_VALUE || !configureLine(port->file, options)) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    port->readDone = manualResetEvent();
    port->writeDone = manualResetEvent();
    port->commEvent = manualResetEvent();
    if (port->readDone == nullptr || port->writeDone == nullptr || port->commEvent == nullptr) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    port->read.hEvent = port->readDone;
    port->write.hEvent = port->writeDone;
    port->comm.hEvent = port->commEvent;
    if (!::SetCommMask(port->file, EV_RXCHAR) || !setTimeouts(port->file)) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    port_ = std::move(port);
    return KM_IO_OK;
}

void IoSerial::receiveLoop() {
    Port& port = *port_;
    std::array<std::uint8_t, kReadBytes> buffer{};
    bool readPending = false;
    const auto fail = [this] { reportLinkError(KM_IO_ERR_LINK_FAILED); };
    if (!port.armCommWait()) {
        fail();
    }
    const HANDLE events[3] = {eventOf(*stop_), port.commEvent, port.readDone};
    DWORD waitCount = 3;
    for (;;) {
        ::SetLastError(0);
        const DWORD woken = ::WaitForMultipleObjects(waitCount, events, FALSE, INFINITE);
        if (woken == WAIT_OBJECT_0) {
            break;
        }
        if (woken == WAIT_OBJECT_0 + 1) {
            ::ResetEvent(port.commEvent);
            if (!port.armCommWait()) {
                fail();
            }
            if (readPending) {
                continue;
            }
            if (!port.startRead(buffer.data())) {
                fail();
            }
            readPending = true;
            continue;
        }
        if (woken == WAIT_OBJECT_0 + 2) {
            ::ResetEvent(port.readDone);
            DWORD got = 0;
            if (::GetOverlappedResult(port.file, &port.read, &got, FALSE)) {
                deliver(buffer.data(), got);
            } else {
                fail();
            }
            DWORD errors = 0;
            COMSTAT status{};
            if (!::ClearCommError(port.file, &errors, &status) || errors != 0) {
                fail();
            }
            if (status.cbInQue == 0) {
                readPending = false;
                continue;
            }
            if (!port.startRead(buffer.data())) {
                fail();
            }
            continue;
        }
        // A wait that fails would fail again at once: report it, then wait
        // for the stop event only.
        fail();
        waitCount = 1;
    }
    releasePort();
}

bool IoSerial::writeAll(const std::uint8_t* data, std::size_t length) {
    Port& port = *port_;
    std::size_t written = 0;
    while (written < length) {
        const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(length - written, MAXDWORD));
        if (::WriteFile(port.file, data + written, chunk, nullptr, &port.write)) {
            written += chunk;
            continue;
        }
        if (::GetLastError() != ERROR_IO_PENDING) {
            return false;
        }
        // No time limit: only the write's completion or close ends the wait.
        const HANDLE events[2] = {port.writeDone, eventOf(*stop_)};
        const DWORD woken = ::WaitForMultipleObjects(2, events, FALSE, INFINITE);
        DWORD done = 0;
        if (woken != WAIT_OBJECT_0) {
            ::CancelIoEx(port.file, &port.write);
            ::GetOverlappedResult(port.file, &port.write, &done, TRUE);
            return false;
        }
        if (!::GetOverlappedResult(port.file, &port.write, &done, FALSE) || done != chunk) {
            return false;
        }
        written += chunk;
    }
    return true;
}

}  // namespace kmio
