#include "pipe/transfer.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

using namespace tez::pcscd;

namespace {

/// A pipe whose one end is read from.
class TransferTest : public testing::Test {
  protected:
    TransferTest() {
        const std::string name =
            R"(\\.\pipe\transfer-test-)" + std::to_string(GetCurrentProcessId());
        server_ =
            UniqueHandle(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                          PIPE_TYPE_BYTE, 1, 1000, 1000, 0, nullptr));
        client_ = UniqueHandle(CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                           OPEN_EXISTING, 0, nullptr));
    }

    void write(const std::string& text) const {
        DWORD count = 0;
        ASSERT_TRUE(WriteFile(client_.get(), text.data(), static_cast<DWORD>(text.size()), &count,
                              nullptr));
    }

    Outcome read(Interrupts interrupts, Limit limit = kNoLimit) {
        return transfer_.run(server_.get(), interrupts, limit, [&](OVERLAPPED* overlapped) {
            return ReadFile(server_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()),
                            nullptr, overlapped) != FALSE;
        });
    }

    UniqueHandle server_;
    UniqueHandle client_;
    Transfer transfer_;
    std::array<char, 100> buffer_ = {};
    const UniqueHandle event_ = makeEvent();
    const UniqueHandle other_ = makeEvent();
};

}  // namespace

TEST_F(TransferTest, MovesWhatThereIs) {
    write("hello");
    const Outcome outcome = read({event_.get()});
    EXPECT_EQ(outcome.error, DWORD{ERROR_SUCCESS});
    EXPECT_EQ(std::string(buffer_.data(), outcome.count), "hello");
}

TEST_F(TransferTest, WaitsForWhatComes) {
    std::thread writer([this] {
        Sleep(50);
        write("late");
    });
    const Outcome outcome = read({event_.get(), other_.get()}, Limit(30000));
    writer.join();
    EXPECT_EQ(outcome.error, DWORD{ERROR_SUCCESS});
    EXPECT_EQ(outcome.count, 4U);
}

TEST_F(TransferTest, FailsWhenTheOtherEndIsGone) {
    client_.reset();
    EXPECT_EQ(read({}).error, DWORD{ERROR_BROKEN_PIPE});
}

TEST_F(TransferTest, EndsWithItsLimit) {
    EXPECT_EQ(read({event_.get()}, Limit(10)).error, DWORD{ERROR_TIMEOUT});
    write("x");
    EXPECT_EQ(read({event_.get()}, Limit(10)).error, DWORD{ERROR_SUCCESS});
}

TEST_F(TransferTest, IsInterruptedByEachEvent) {
    for (const HANDLE event : {event_.get(), other_.get()}) {
        std::thread interrupter([event] {
            Sleep(20);
            SetEvent(event);
        });
        EXPECT_EQ(read({event_.get(), other_.get()}).error, DWORD{ERROR_OPERATION_ABORTED});
        interrupter.join();
        ResetEvent(event);
    }
}

TEST_F(TransferTest, IsInterruptedThoughItCouldGoOn) {
    SetEvent(event_.get());
    write("hello");
    EXPECT_EQ(read({event_.get()}).error, DWORD{ERROR_OPERATION_ABORTED});
}
