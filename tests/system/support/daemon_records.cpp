#include "daemon_records.h"

#include <utility>

#include "record_codec.h"

namespace tez::test {

RecordBytes& RecordBytes::u32(std::size_t offset, std::uint32_t value) {
    putU32(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::u64(std::size_t offset, std::uint64_t value) {
    putU64(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::text(std::size_t offset, const std::string& value) {
    return raw(offset, Bytes(value.begin(), value.end()));
}

RecordBytes& RecordBytes::raw(std::size_t offset, const Bytes& value) {
    putBytes(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::append(const Bytes& data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
}

testing::Matcher<const Request&> IsRequest(Command command, const RecordBytes& body) {
    RecordBytes header(12);
    header.u32(0, static_cast<std::uint32_t>(body.bytes().size()))
        .u32(4, static_cast<std::uint32_t>(command));
    return testing::AllOf(testing::Field("header", &Request::header, header.bytes()),
                          testing::Field("body", &Request::body, body.bytes()),
                          testing::Field("complete", &Request::complete, true));
}

std::vector<Bytes> answerBlocks(const Request& request, std::size_t recordSize,
                                const std::vector<AnswerField>& fields, const Bytes& data) {
    Bytes record = bytesAt(request.body, 0, recordSize);
    for (const AnswerField& field : fields) {
        putU32(record, field.offset, field.value);
    }
    return {std::move(record), data};
}

DaemonSimulator::Handler answering(std::size_t recordSize, std::vector<AnswerField> fields,
                                   Bytes data) {
    return
        [recordSize, fields = std::move(fields), data = std::move(data)](const Request& request) {
            if (!request.complete) {
                return Reply::closePipe();
            }
            return Reply::of(answerBlocks(request, recordSize, fields, data));
        };
}

DaemonSimulator::Handler answeringAndClosing(std::size_t recordSize,
                                             std::vector<AnswerField> fields, Bytes data) {
    return
        [recordSize, fields = std::move(fields), data = std::move(data)](const Request& request) {
            return Reply::closePipe(answerBlocks(request, recordSize, fields, data));
        };
}

DaemonSimulator::Handler closing() {
    return [](const Request&) { return Reply::closePipe(); };
}

Bytes sampleBytes(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        // 251 is prime: the pattern does not repeat where buffers usually end.
        bytes[i] = static_cast<std::uint8_t>(i % 251 + 1);
    }
    return bytes;
}

}  // namespace tez::test
