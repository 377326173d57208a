#include <cstring>
#include <memory>

#include "commands/commands.h"
#include "hex.h"
#include "output.h"

namespace tez::client {
namespace {

constexpr struct {
    DWORD id;
    const char* name;
    bool isText;
} kAttributes[] = {
    {SCARD_ATTR_VENDOR_NAME, "vendor name", true},
    {SCARD_ATTR_VENDOR_IFD_TYPE, "vendor's reader type", true},
    {SCARD_ATTR_VENDOR_IFD_VERSION, "vendor's reader version", false},
    {SCARD_ATTR_VENDOR_IFD_SERIAL_NO, "serial number", true},
    {SCARD_ATTR_CHANNEL_ID, "channel", false},
    {SCARD_ATTR_CHARACTERISTICS, "mechanics", false},
    {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, "current protocol", false},
    {SCARD_ATTR_ICC_PRESENCE, "card presence", false},
    {SCARD_ATTR_ICC_INTERFACE_STATUS, "card contact", false},
    {SCARD_ATTR_ATR_STRING, "ATR", false},
    {SCARD_ATTR_ICC_TYPE_PER_ATR, "card type", false},
    {SCARD_ATTR_MAXINPUT, "longest APDU", false},
    {SCARD_ATTR_DEVICE_UNIT, "device unit", false},
    {SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, "friendly name", true},
    {SCARD_ATTR_DEVICE_SYSTEM_NAME_A, "system name", true},
};

}  // namespace

void addAttributes(CLI::App& app, Session& session) {
    CLI::App* const command =
        app.add_subcommand("attributes", "Print the attributes that a reader and its card have");
    const auto reader = std::make_shared<std::string>();
    addReaderOption(*command, *reader);
    command->callback([&session, reader] {
        session.useCard(*reader, [](const Card& card) {
            for (const auto& [id, name, isText] : kAttributes) {
                if (const auto value = card.attribute(id)) {
                    const auto* const text = reinterpret_cast<const char*>(value->data());
                    printLine("    " + std::string(name) + ": " +
                              (isText ? std::string(text, strnlen(text, value->size()))
                                      : formatHex(*value)));
                }
            }
        });
    });
}

}  // namespace tez::client
