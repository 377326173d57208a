// The platform's PC/SC declarations as an application sees them. The toolchain's <winscard.h> lacks
// some of the functions; they are declared here, once for all tests.
#pragma once

#include <windows.h>
#include <winscard.h>

extern "C" {
LONG WINAPI SCardAudit(SCARDCONTEXT hContext, DWORD dwEvent);
LONG WINAPI SCardGetDeviceTypeIdA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetDeviceTypeIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetReaderDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                            LPSTR szDeviceInstanceId, LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardGetReaderDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                            LPWSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon);
LONG WINAPI SCardGetReaderIconW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon);
LONG WINAPI SCardListReadersWithDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szDeviceInstanceId,
                                                  LPSTR mszReaders, LPDWORD pcchReaders);
LONG WINAPI SCardListReadersWithDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szDeviceInstanceId,
                                                  LPWSTR mszReaders, LPDWORD pcchReaders);
}

// Events of SCardAudit.
constexpr DWORD SCARD_AUDIT_CHV_FAILURE = 0;
constexpr DWORD SCARD_AUDIT_CHV_SUCCESS = 1;
