#include "holdings.h"

#include <algorithm>
#include <array>
#include <map>
#include <psapi.h>
#include <stdexcept>
#include <tlhelp32.h>

#include "pipe/unique_handle.h"

namespace tez::soak {
namespace {

using pcscd::UniqueHandle;

// The table of all processes' handles, which winternl.h knows in part: Wine cannot tell the number
// of one process's.
constexpr int kExtendedHandleInformation = 64;
constexpr LONG kLengthMismatch = static_cast<LONG>(0xC0000004);

struct SystemHandle {
    void* object;
    ULONG_PTR process;
    ULONG_PTR handle;
    ULONG access;
    USHORT backTrace;
    USHORT type;
    ULONG attributes;
    ULONG reserved;
};

struct SystemHandles {
    ULONG_PTR count;
    ULONG_PTR reserved;
    SystemHandle handles[1];
};

using QuerySystemInformation = LONG WINAPI(int kind, void* buffer, ULONG size, ULONG* needed);

std::map<DWORD, double> handlesByProcess() {
    static auto* const query = reinterpret_cast<QuerySystemInformation*>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<ULONG_PTR> buffer(0x4000);
    ULONG needed = 0;
    LONG status = 0;
    while ((status = query(kExtendedHandleInformation, buffer.data(),
                           static_cast<ULONG>(buffer.size() * sizeof buffer[0]), &needed)) ==
           kLengthMismatch) {
        buffer.resize(buffer.size() * 2);
    }
    if (status != 0) {
        throw std::runtime_error("the system does not tell its handles");
    }
    std::map<DWORD, double> found;
    const auto* const table = reinterpret_cast<const SystemHandles*>(buffer.data());
    for (const SystemHandle& handle : std::span(table->handles, table->count)) {
        ++found[static_cast<DWORD>(handle.process)];
    }
    return found;
}

std::map<DWORD, double> threadsByProcess() {
    const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    std::map<DWORD, double> found;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
         more = Thread32Next(snapshot.get(), &entry)) {
        ++found[entry.th32OwnerProcessID];
    }
    return found;
}

double memoryOf(DWORD process) {
    const UniqueHandle handle(
        OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, process));
    PROCESS_MEMORY_COUNTERS counters = {};
    K32GetProcessMemoryInfo(handle.get(), &counters, sizeof counters);
    return static_cast<double>(counters.PagefileUsage) / 0x100000;
}

double median(std::span<const double> values) {
    std::vector<double> sorted(values.begin(), values.end());
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::ranges::nth_element(sorted, middle);
    return *middle;
}

}  // namespace

std::vector<Holdings> holdingsOf(std::span<const DWORD> processes) {
    std::map<DWORD, double> handles = handlesByProcess();
    std::map<DWORD, double> threads = threadsByProcess();
    std::vector<Holdings> found;
    for (const DWORD process : processes) {
        found.push_back(process == 0
                            ? Holdings{}
                            : Holdings{memoryOf(process), handles[process], threads[process]});
    }
    return found;
}

bool growsSteadily(std::span<const double> series, double tolerance) {
    series = series.subspan(series.size() / 5);
    const std::size_t part = series.size() / 4;
    if (part == 0) {
        return false;
    }
    std::array<double, 4> medians = {};
    for (std::size_t i = 0; i < medians.size(); ++i) {
        medians[i] = median(series.subspan(i * part, part));
    }
    return std::ranges::adjacent_find(medians, std::ranges::greater_equal()) == medians.end() &&
           medians.back() - medians.front() > tolerance;
}

}  // namespace tez::soak
