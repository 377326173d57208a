#include "log/log_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <limits>

namespace tez::client {
namespace {

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
/// Of a year in which each date exists.
constexpr std::array<int, 12> kDays = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr LogTime kDay = LogTime{24} * 60 * 60 * 1'000'000;

/// Takes text apart from its beginning; once something does not fit, nothing does any more.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool fits() const { return fits_; }
    std::size_t position() const { return position_; }

    void expect(std::string_view literal) {
        fits_ = fits_ && text_.substr(position_).starts_with(literal);
        position_ += fits_ ? literal.size() : 0;
    }

    char oneOf(std::string_view characters) {
        fits_ = fits_ && position_ < text_.size() &&
                characters.find(text_[position_]) != std::string_view::npos;
        return fits_ ? text_[position_++] : '\0';
    }

    std::uint32_t number(std::uint32_t least = 0,
                         std::uint32_t most = std::numeric_limits<std::uint32_t>::max()) {
        std::uint32_t value = 0;
        const char* const begin = text_.data() + position_;
        const char* const end = text_.data() + text_.size();
        const auto [stop, error] = std::from_chars(begin, end, value);
        fits_ = fits_ && error == std::errc() && value >= least && value <= most;
        position_ += fits_ ? static_cast<std::size_t>(stop - begin) : 0;
        return fits_ ? value : 0;
    }

    std::size_t month() {
        const auto* const found =
            std::find(kMonths.begin(), kMonths.end(), text_.substr(position_, 3));
        fits_ = fits_ && found != kMonths.end();
        position_ += fits_ ? 3 : 0;
        return static_cast<std::size_t>(found - kMonths.begin());
    }

    std::string_view upTo(std::string_view delimiter) {
        const std::size_t end = fits_ ? text_.find(delimiter, position_) : std::string_view::npos;
        fits_ = end != std::string_view::npos;
        if (!fits_) {
            return {};
        }
        const std::string_view part = text_.substr(position_, end - position_);
        position_ = end + delimiter.size();
        return part;
    }

  private:
    std::string_view text_;
    std::size_t position_ = 0;
    bool fits_ = true;
};

LogTime dayOfYear(std::size_t month, std::uint32_t day) {
    LogTime days = LogTime{day} - 1;
    for (std::size_t before = 0; before < month; ++before) {
        days += kDays[before];
    }
    return days;
}

std::optional<FoundPrefix> parsePrefix(std::string_view text) {
    constexpr std::string_view kLevels = "EWID";
    constexpr std::size_t kLongestFunction = 100;
    Scanner scanner(text);
    FoundPrefix found;
    found.prefix.level = scanner.oneOf(kLevels);
    scanner.expect(" ");
    const std::size_t month = scanner.month();
    scanner.expect(" ");
    const std::uint32_t day = scanner.number(1, 31);
    LogTime time = 0;
    for (const auto& [delimiter, unit] : {std::pair(" ", 24U), std::pair(":", 60U),
                                          std::pair(":", 60U), std::pair(":", 1'000'000U)}) {
        scanner.expect(delimiter);
        time = time * unit + scanner.number(0, unit - 1);
    }
    scanner.expect(" ");
    found.prefix.process = scanner.number();
    scanner.expect(":");
    found.prefix.thread = scanner.number();
    scanner.expect(" ");
    scanner.upTo(" (");
    const std::string_view function = scanner.upTo("): ");
    if (!scanner.fits() || function.size() > kLongestFunction) {
        return std::nullopt;
    }
    found.prefix.time = dayOfYear(month, day) * kDay + time;
    found.prefix.function = function;
    found.length = scanner.position();
    return found;
}

}  // namespace

std::string formatLogTime(LogTime time) {
    LogTime days = time / kDay % 366;
    std::size_t month = 0;
    while (days >= kDays[month]) {
        days -= kDays[month++];
    }
    const LogTime microseconds = time % kDay;
    const LogTime seconds = microseconds / 1'000'000;
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "%s %02d %02d:%02d:%02d.%06d", kMonths[month].data(),
                  static_cast<int>(days + 1), static_cast<int>(seconds / 3600),
                  static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
                  static_cast<int>(microseconds % 1'000'000));
    return text.data();
}

std::optional<FoundPrefix> findPrefix(std::string_view text, std::size_t from) {
    // A prefix begins with one letter in front of a space.
    for (std::size_t space = text.find(' ', from + 1); space != std::string_view::npos;
         space = text.find(' ', space + 1)) {
        if (std::optional<FoundPrefix> found = parsePrefix(text.substr(space - 1))) {
            found->position = space - 1;
            return found;
        }
    }
    return std::nullopt;
}

std::optional<FrameMessage> parseFrame(std::string_view message) {
    static constexpr struct {
        std::string_view mark;
        FrameMessage::Part part;
    } kMarks[] = {{" IN-PARAMS: ", FrameMessage::Part::kIn},
                  {" OUT-PARAMS: ", FrameMessage::Part::kOut},
                  {" RV: ", FrameMessage::Part::kResult}};
    for (const auto& [mark, part] : kMarks) {
        const std::size_t position = message.find(mark);
        const std::string_view operation = message.substr(0, position);
        const auto isOperationCharacter = [](char character) {
            return (character >= 'A' && character <= 'Z') || character == '_' || character == ' ';
        };
        if (position != std::string_view::npos && position > 0 &&
            std::all_of(operation.begin(), operation.end(), isOperationCharacter)) {
            return FrameMessage{operation, part, message.substr(position + mark.size())};
        }
    }
    return std::nullopt;
}

}  // namespace tez::client
