#include "link_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>

#include "link/hello.h"
#include "link/little_endian.h"

namespace tez::agent {

LinkClient::LinkClient(const std::filesystem::path& path)
    : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    const timeval patience{20, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

void LinkClient::send(std::span<const std::uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return;  // the answer will be missing
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

std::optional<pcscd::Bytes> LinkClient::receive(std::size_t size) const {
    pcscd::Bytes bytes(size);
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = recv(socket_.get(), &bytes[done], size - done, 0);
        if (count <= 0) {
            return std::nullopt;
        }
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

std::optional<pcscd::Bytes> LinkClient::receiveFrame() const {
    const std::optional<pcscd::Bytes> length = receive(4);
    if (!length) {
        return std::nullopt;
    }
    return receive(link::littleEndian(std::span(*length).first<4>()));
}

bool LinkClient::sayHello(const link::Token& token, std::uint32_t process,
                          std::uint32_t relay) const {
    send(link::encodeRelayHello(token, {relay, process}));
    const std::optional<pcscd::Bytes> answer = receive(link::kAgentHelloSize);
    return answer && link::decodeAgentHello(std::span(*answer).first<link::kAgentHelloSize>(),
                                            token) == link::Greeting::accepted;
}

bool LinkClient::shakeHands() const {
    send(pcscd::Bytes{0, 0xFF, 0xFF, 0xFF, 0xFF});
    return receiveFrame() == pcscd::Bytes{1, 0, 0, 0, 4, 0, 0, 0};
}

void LinkClient::sendHeader(std::uint32_t command, std::size_t size) const {
    const MessageHeader header{static_cast<std::uint32_t>(size), command, 0};
    send(std::span(reinterpret_cast<const std::uint8_t*>(&header), sizeof header));
}

std::uint64_t LinkClient::establish() const {
    return call(CMD_ESTABLISH_CONTEXT, EstablishRecord{}).hContext;
}

ConnectRecord LinkClient::connect(std::uint64_t context, const char* reader,
                                  std::uint32_t shareMode) const {
    ConnectRecord record{context, {}, shareMode, pcscd::protocol::kT0 | pcscd::protocol::kT1,
                         0,       0,  0};
    std::strncpy(record.szReader, reader, sizeof record.szReader - 1);
    return call(CMD_SCARD_CONNECT, record);
}

pcscd::Bytes LinkClient::transmit(const ConnectRecord& card, const pcscd::Bytes& command) const {
    const TransmitRecord record{
        card.hCard, card.dwActiveProtocol, static_cast<std::uint32_t>(command.size()), 0, 66000, 0};
    if (call(CMD_TRANSMIT, record, command).rv != 0) {
        return {};
    }
    return receiveFrame().value_or(pcscd::Bytes{});
}

pcscd::Bytes LinkClient::listReaders(std::uint64_t context) const {
    if (call(CMD_LIST_READERS, ListReadersRecord{context, 0, 0}).rv != 0) {
        return {};
    }
    return receiveFrame().value_or(pcscd::Bytes{});
}

void LinkClient::sendWait(std::uint64_t context, const char* reader, std::uint32_t known,
                          std::uint32_t timeout) const {
    ReaderStateRecord entry{};
    std::strncpy(entry.szReader, reader, sizeof entry.szReader - 1);
    entry.dwCurrentState = known;
    sendRequest(CMD_GET_STATUS_CHANGE, StatusChangeRecord{context, timeout, 1, 0},
                std::span(reinterpret_cast<const std::uint8_t*>(&entry), sizeof entry));
}

std::pair<pcscd::Result, std::uint32_t> LinkClient::receiveWait() const {
    const auto record = receiveRecord<StatusChangeRecord>();
    ReaderStateRecord entry{};
    if (const std::optional<pcscd::Bytes> states = receiveFrame();
        states && states->size() == sizeof entry) {
        std::memcpy(&entry, states->data(), sizeof entry);
    }
    return {static_cast<pcscd::Result>(record.rv), entry.dwEventState};
}

}  // namespace tez::agent
