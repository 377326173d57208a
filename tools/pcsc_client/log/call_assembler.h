#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "log/call.h"

namespace tez::client {

/// Puts the calls together from the lines of one log. Lines of a thread belong to the innermost
/// call that it has begun and not ended.
class CallAssembler {
  public:
    /// @param ended  called with each call when it has ended, inner calls before outer ones.
    explicit CallAssembler(std::function<void(Call)> ended) : ended_(std::move(ended)) {}

    void take(const LogLine& line);
    /// Gives the calls that have not ended.
    void finish();

    /// How many lines belong to no call, such as those of the thread that watches the daemon. They
    /// are not kept: while there is no daemon it writes more of them than all calls together.
    std::size_t otherLineCount() const { return otherLineCount_; }

  private:
    /// What the log has told of a card handle.
    struct CardNote {
        std::string reader;
        AnsweringSide side = AnsweringSide::kNone;
    };
    using Thread = std::pair<std::uint32_t, std::uint32_t>;

    void takeFrame(const LogLine& line, const FrameMessage& frame);
    void takeResult(const LogLine& line, const FrameMessage& frame);
    void takeOther(const LogLine& line);
    void takeInstant(const LogLine& line, std::optional<std::int32_t> result);
    Call& begin(const LogLine& line, std::string_view operation);
    void add(const LogLine& line);
    Call* innermost(const LogLine& line);
    Call* onlyOpenWait(std::uint32_t process);
    void end(std::vector<Call>& open, bool isFinished);
    void noteInput(Call& call, std::string_view parameters);
    void noteOutput(const Call& call, std::string_view parameters);
    static void noteLine(Call& call, const LogLine& line);

    std::function<void(Call)> ended_;
    std::map<Thread, std::vector<Call>> open_;
    std::map<std::pair<std::uint32_t, std::string>, CardNote> cards_;  ///< by process and handle
    std::size_t otherLineCount_ = 0;
    std::vector<LogLine>* lastPlace_ = nullptr;  ///< where the line before went, if that was a call
};

}  // namespace tez::client
