// The platform's PC/SC declarations, seen from the side that implements them.
#pragma once

// The library defines the protocol control records itself instead of importing them.
#define WINSCARDDATA

#include <windows.h>
#include <winscard.h>

// Entry points of the platform that not every toolchain's <winscard.h> declares.
extern "C" {
LONG WINAPI SCardAudit(SCARDCONTEXT hContext, DWORD dwEvent);
LONG WINAPI SCardGetDeviceTypeIdA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetDeviceTypeIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon);
LONG WINAPI SCardGetReaderIconW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon);
LONG WINAPI SCardGetReaderDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                            LPSTR szDeviceInstanceId, LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardGetReaderDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                            LPWSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardListReadersWithDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szDeviceInstanceId,
                                                  LPSTR mszReaders, LPDWORD pcchReaders);
LONG WINAPI SCardListReadersWithDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szDeviceInstanceId,
                                                  LPWSTR mszReaders, LPDWORD pcchReaders);
}
