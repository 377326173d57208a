#include "daemon_records.h"

#include <utility>

namespace tez::test {

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
