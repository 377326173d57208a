// The command-line client, with a daemon in this process: its readers can be given any attribute.
#include <windows.h>
#include <winscard.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "child_process.h"
#include "daemon_simulator.h"
#include "patience.h"
#include "simulator_process.h"

namespace tez::test {
namespace {

using testing::HasSubstr;
using testing::Optional;

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

TEST(ClientTestWithOwnDaemon, PrintsAnAttributeOfAnyLength) {
    const std::string reader = "Remote Reader 0";
    const std::string longNumber(5000, '7');
    SimulatedService service;
    service.addReader(reader);
    service.insertCard(reader, makeDemoCard("Remote User"));
    storeAttribute(service, reader, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, longNumber);
    DaemonSimulator daemon(service);
    daemon.start();
    ChildProcess client("pcsc-client.exe", "attributes \"" + reader + "\"");
    EXPECT_THAT(client.readRest(), HasSubstr("value     " + longNumber));
    EXPECT_THAT(client.waitForEnd(kPatience), Optional(0U));
}

}  // namespace
}  // namespace tez::test
