// All of it that is needed is in <windows.h>.
#include <windows.h>
