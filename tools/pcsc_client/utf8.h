#pragma once

#include <string>

namespace tez::client {

std::string toUtf8(const std::wstring& text);

}  // namespace tez::client
