#include "core/card_service.h"

#include <algorithm>

#include "core/reader_icon.h"

namespace tez::pcscd {
namespace {

Result checkReader(const CardService& service, Context context, const std::string& reader) {
    std::vector<std::string> names;
    const Result listed = service.listReaders(context, names);
    if (listed != result::kSuccess) {
        return listed;
    }
    return std::ranges::find(names, reader) == names.end() ? result::kUnknownReader
                                                           : result::kSuccess;
}

}  // namespace

Result CardService::getDeviceTypeId(Context context, const std::string& reader,
                                    std::uint32_t& type) const {
    const Result result = checkReader(*this, context, reader);
    if (result == result::kSuccess) {
        type = kReaderTypeUsb;
    }
    return result;
}

Result CardService::getReaderIcon(Context context, const std::string& reader, Bytes& icon) const {
    const Result result = checkReader(*this, context, reader);
    if (result == result::kSuccess) {
        icon.assign(readerIcon().begin(), readerIcon().end());
    }
    return result;
}

Result CardService::audit(Context context, std::uint32_t event) const {
    if (event != kAuditFailure && event != kAuditSuccess) {
        return result::kInvalidParameter;
    }
    return context == 0 ? result::kSuccess : isValidContext(context);
}

}  // namespace tez::pcscd
