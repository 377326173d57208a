#include "pipe/pipe_end.h"

namespace tez::pcscd {

std::uint32_t PipeEnd::clientProcess() const {
    ULONG process = 0;
    return GetNamedPipeClientProcessId(pipe_.get(), &process) != FALSE ? process : 0;
}

Outcome PipeEnd::read(std::span<std::uint8_t> buffer, Interrupts interrupts) {
    return reading_.run(pipe_.get(), interrupts, kNoLimit, [&](OVERLAPPED* overlapped) {
        return ReadFile(pipe_.get(), buffer.data(), static_cast<DWORD>(buffer.size()), nullptr,
                        overlapped) != FALSE;
    });
}

bool PipeEnd::write(std::span<const std::uint8_t> bytes, Interrupts interrupts) {
    const Outcome outcome =
        writing_.run(pipe_.get(), interrupts, kNoLimit, [&](OVERLAPPED* overlapped) {
            return WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                             overlapped) != FALSE;
        });
    // Whoever has taken all of it may have hung up, and so have interrupted the write behind it.
    return outcome.count == bytes.size();
}

}  // namespace tez::pcscd
