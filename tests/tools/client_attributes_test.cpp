// The command-line client, with a daemon in this process: its readers can be given any attribute.
#include <windows.h>
#include <winscard.h>

#include "client_with_own_daemon.h"

namespace tez::test {
namespace {

using testing::HasSubstr;

void storeAttribute(SimulatedService& service, const std::string& reader, DWORD id,
                    const std::string& value) {
    Context context = 0;
    Card card = 0;
    std::uint32_t protocol = 0;
    ASSERT_EQ(service.establishContext(SCARD_SCOPE_USER, context), SCARD_S_SUCCESS);
    ASSERT_EQ(
        service.connect(context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, card, protocol),
        SCARD_S_SUCCESS);
    ASSERT_EQ(service.setAttribute(card, id, Bytes(value.begin(), value.end())), SCARD_S_SUCCESS);
    ASSERT_EQ(service.releaseContext(context), SCARD_S_SUCCESS);
}

TEST_F(ClientWithOwnDaemon, PrintsAnAttributeOfAnyLength) {
    const std::string longNumber(5000, '7');
    storeAttribute(service, kReader, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, longNumber);
    EXPECT_THAT(output(onCard("attributes")), HasSubstr("value     " + longNumber));
}

}  // namespace
}  // namespace tez::test
