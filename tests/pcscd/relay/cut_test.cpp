// Cuts of the tunnel, and what many clients leave behind.
#include <winsock2.h>

#include <atomic>
#include <tlhelp32.h>

#include "handle_mark.h"
#include "latch.h"
#include "relay_fixture.h"

using namespace tez;
using test::AgentConnection;
using test::Bytes;
using test::PipeClient;
using test::RelayTest;
using testing::IsEmpty;

namespace {

class RelayCut : public RelayTest {};

int countThreads() {
    const pcscd::UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    int count = 0;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
         more = Thread32Next(snapshot.get(), &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1 : 0;
    }
    return count;
}

}  // namespace

TEST_F(RelayCut, BreaksEachClientsPipeAtOnce) {
    startBoth();
    std::vector<PipeClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(connect());
        ASSERT_EQ(clients.back().exchange(Bytes{1}), Bytes{1});
    }
    agent_.stop();
    for (const PipeClient& client : clients) {
        EXPECT_THAT(client.readOnce(1), IsEmpty());
    }
    EXPECT_TRUE(pipeGoes());
}

TEST_F(RelayCut, OfTheControlStreamAloneBreaksTheClientsToo) {
    test::Latch cut(1);
    agent_.onControl([&](AgentConnection& connection) {
        connection.sendPiece(connection.read(1));
        cut.wait();
    });
    startBoth();
    const PipeClient client = connect();
    ASSERT_EQ(client.exchange(Bytes{1}), Bytes{1});
    cut.countDown();
    EXPECT_THAT(client.readOnce(1), IsEmpty());
}

TEST_F(RelayCut, HundredTimesUnderLoadIsSurvived) {
    startBoth();
    std::atomic<bool> enough = false;
    std::atomic<int> wrong = 0;
    std::atomic<int> right = 0;
    constexpr int kClients = 4;
    std::vector<std::thread> load;
    load.reserve(kClients);
    for (int number = 0; number < kClients; ++number) {
        load.emplace_back([&, number] {
            const Bytes request(500, static_cast<std::uint8_t>(number));
            while (!enough) {
                const PipeClient client = connect();
                for (Bytes answer = request; client.isOpen() && answer == request && !enough;) {
                    answer = client.exchange(request);
                    (answer == request ? right : wrong) += answer.empty() ? 0 : 1;
                }
            }
        });
    }
    for (int cut = 0; cut < 100; ++cut) {
        const int before = right;
        ASSERT_TRUE(test::eventually([&] { return right > before; }));
        agent_.stop();
        agent_.start();
    }
    const int before = right;
    EXPECT_TRUE(test::eventually([&] { return right > before; }));
    enough = true;
    for (std::thread& thread : load) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(RelayCut, AndManyClientsLeaveNothingBehind) {
    startBoth();
    const auto serveSome = [this](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(connect().exchange(Bytes{1}), Bytes{1});
        }
    };
    serveSome(20);
    agent_.stop();
    ASSERT_TRUE(pipeGoes());
    const std::uintptr_t handles = test::handleMark();
    const int threads = countThreads();

    agent_.start();
    ASSERT_TRUE(pipeComes());
    serveSome(20);
    const std::uintptr_t handlesOfAServingRelay = test::handleMark();
    constexpr std::size_t kClients = 400;
    serveSome(kClients);
    // While it serves, too: the agent keeps a socket and a thread for each stream that there was.
    EXPECT_TRUE(test::eventually([&] {
        return test::handleMark() < handlesOfAServingRelay + test::kHandleStep * kClients * 5 / 2;
    }));

    agent_.stop();
    ASSERT_TRUE(pipeGoes());
    EXPECT_TRUE(test::eventually([&] { return countThreads() <= threads; }));
    // What the moment holds, such as a try to reach the agent, is a few; of the clients one each
    // would be hundreds.
    EXPECT_TRUE(
        test::eventually([&] { return test::handleMark() <= handles + test::kHandleStep * 40; }));
}
