// Of the toolchain's header what its PC/SC header needs: the names without A or W at their end.
#pragma once

#define __MINGW_NAME_AW(name) name##A
#define __MINGW_NAME_UAW(name) name##A
#define __MINGW_TYPEDEF_AW(name) typedef name##A name;
#define __MINGW_TYPEDEF_UAW(name) typedef name##A name;
#define TEXT(text) text
