#include "allocated_buffer.h"

namespace tez::client {

AllocatedBuffer::~AllocatedBuffer() {
    if (data_ != nullptr) {
        SCardFreeMemory(context_, data_);
    }
}

std::string AllocatedBuffer::text() const {
    return data_ == nullptr ? "" : reinterpret_cast<const char*>(data_);
}

std::vector<std::string> AllocatedBuffer::names() const {
    std::vector<std::string> list;
    for (const auto* name = reinterpret_cast<const char*>(data_); name != nullptr && *name != '\0';
         name += list.back().size() + 1) {
        list.emplace_back(name);
    }
    return list;
}

}  // namespace tez::client
