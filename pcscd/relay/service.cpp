#include "relay/service.h"

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include "pipe/system_failure.h"
#include "pipe/transfer.h"
#include "relay/command_line.h"

namespace tez::relay {
namespace {

constexpr const wchar_t* kName = L"pcsc-relay";
constexpr const wchar_t* kTitle = L"Smart-card readers of a remote user";
constexpr const wchar_t* kAccount = L"NT SERVICE\\pcsc-relay";

struct CloseService {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using Service = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

Service openManager() {
    Service manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    if (manager == nullptr) {
        throw pcscd::systemFailure("no access to the services (an administrator has it)");
    }
    return manager;
}

void restartWhenItFails(const Service& service) {
    SC_ACTION action = {SC_ACTION_RESTART, 5000};
    SERVICE_FAILURE_ACTIONSW actions = {};
    actions.dwResetPeriod = 60;
    actions.cActions = 1;
    actions.lpsaActions = &action;
    ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &actions);
    // A token that it may not read yet is a failure, too, and not only a crash.
    SERVICE_FAILURE_ACTIONS_FLAG anyFailure = {TRUE};
    ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &anyFailure);
}

bool isStopped(const Service& service) {
    SERVICE_STATUS status = {};
    return QueryServiceStatus(service.get(), &status) == FALSE ||
           status.dwCurrentState == SERVICE_STOPPED;
}

/// The service in this process. The manager's functions know of no argument of the caller's.
struct Running {
    ServiceBody body;
    pcscd::UniqueHandle stop = pcscd::makeEvent();
    SERVICE_STATUS_HANDLE status = nullptr;

    void report(DWORD state, int exitCode = 0) const {
        SERVICE_STATUS report = {};
        report.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        report.dwCurrentState = state;
        report.dwControlsAccepted =
            state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
        if (exitCode != 0) {
            report.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
            report.dwServiceSpecificExitCode = static_cast<DWORD>(exitCode);
        }
        SetServiceStatus(status, &report);
    }
};
Running* running = nullptr;

DWORD WINAPI control(DWORD code, DWORD /*event*/, void* /*data*/, void* /*context*/) {
    switch (code) {
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN:
            running->report(SERVICE_STOP_PENDING);
            SetEvent(running->stop.get());
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI serviceMain(DWORD /*count*/, wchar_t** /*words*/) {
    running->status = RegisterServiceCtrlHandlerExW(kName, control, nullptr);
    running->report(SERVICE_RUNNING);
    const int exitCode = running->body(running->stop.get());
    running->report(SERVICE_STOPPED, exitCode);
}

}  // namespace

void installService(const std::vector<std::string>& words) {
    const Service manager = openManager();
    const Service service(CreateServiceW(
        manager.get(), kName, kTitle, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
        SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, commandLineOfThisProgram(words).c_str(), nullptr,
        nullptr, nullptr, kAccount, nullptr));
    if (service == nullptr) {
        throw pcscd::systemFailure("cannot install the service");
    }
    restartWhenItFails(service);
    if (StartServiceW(service.get(), 0, nullptr) == FALSE) {
        throw pcscd::systemFailure("the service is installed but does not start");
    }
}

void removeService() {
    const Service manager = openManager();
    const Service service(OpenServiceW(manager.get(), kName, SERVICE_ALL_ACCESS));
    if (service == nullptr) {
        throw pcscd::systemFailure("cannot open the service");
    }
    SERVICE_STATUS status = {};
    ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    for (int patience = 100; patience > 0 && !isStopped(service); --patience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (DeleteService(service.get()) == FALSE) {
        throw pcscd::systemFailure("cannot remove the service");
    }
}

void runService(ServiceBody body) {
    Running service{std::move(body)};
    running = &service;
    std::array<wchar_t, 16> name = {};
    std::wstring_view(kName).copy(name.data(), name.size() - 1);
    const std::array<SERVICE_TABLE_ENTRYW, 2> table = {{{name.data(), serviceMain}, {}}};
    if (StartServiceCtrlDispatcherW(table.data()) == FALSE) {
        throw pcscd::systemFailure("only the service manager can start the service");
    }
}

}  // namespace tez::relay
