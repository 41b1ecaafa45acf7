// The small pieces record lines are built from: digit counts and decimal
// texts written in place, checked against the standard library's texts at
// every power-of-ten boundary of every integer width and for random values,
// and kept within the room they are given; hex texts likewise.
#include <gtest/gtest.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "records/Text.h"
#include "records/Values.h"

namespace {

using Tav::detail::TextBuilder;

/// 0, 1, and 10^k - 1, 10^k, 10^k + 1 for every power that fits 64 bits,
/// and the largest value.
std::vector<std::uint64_t> boundaries() {
    std::vector<std::uint64_t> values = {0, 1, 2, std::numeric_limits<std::uint64_t>::max()};
    std::uint64_t power = 1;
    for (int k = 1; k <= 19; ++k) {
        power *= 10;
        values.push_back(power - 1);
        values.push_back(power);
        values.push_back(power + 1);
    }
    for (int bit = 0; bit < 64; ++bit) {
        const std::uint64_t value = std::uint64_t{1} << bit;
        values.push_back(value - 1);
        values.push_back(value);
    }
    return values;
}

template <typename T>
void expectDecimal(T value) {
    TextBuilder text;
    text.append("x=", 2);
    Tav::detail::appendDecimal(text, value);
    text.push_back(';');
    EXPECT_EQ(std::string(text.view()), "x=" + std::to_string(value) + ";") << "value " << +value;
    // Appended to a string (through a buffer of its own).
    std::string appended = "y=";
    Tav::detail::appendDecimal(appended, value);
    EXPECT_EQ(appended, "y=" + std::to_string(value)) << "value " << +value;
    // Written in place: within its room of 21 characters, nothing before.
    char buffer[48];
    std::memset(buffer, '#', sizeof buffer);
    char* const at = buffer + 8;
    const char* const end = Tav::detail::writeDecimal(at, value);
    EXPECT_EQ(std::string(static_cast<const char*>(at), end), std::to_string(value))
        << "value " << +value;
    EXPECT_EQ(std::string(buffer, at), std::string(8, '#')) << "value " << +value;
    EXPECT_EQ(std::string(at + 21, buffer + sizeof buffer), std::string(sizeof buffer - 29, '#'))
        << "value " << +value;
}

/// Calls `check` with `value` cut to every integer width, unsigned and
/// signed.
template <typename Check>
void atEveryWidth(std::uint64_t value, Check check) {
    check(static_cast<std::uint8_t>(value));
    check(static_cast<std::int8_t>(value));
    check(static_cast<std::uint16_t>(value));
    check(static_cast<std::int16_t>(value));
    check(static_cast<std::uint32_t>(value));
    check(static_cast<std::int32_t>(value));
    check(value);
    check(static_cast<std::int64_t>(value));
}

TEST(TextPieces, DecimalDigitsAtEveryBoundary) {
    for (const std::uint64_t value : boundaries()) {
        EXPECT_EQ(Tav::detail::decimalDigits(value), std::to_string(value).size())
            << "value " << value;
    }
}

TEST(TextPieces, DecimalTextOfEveryWidthAtEveryBoundary) {
    for (const std::uint64_t value : boundaries()) {
        atEveryWidth(value, [](auto cut) { expectDecimal(cut); });
        // The negative side: the most negative value of each width too.
        expectDecimal(static_cast<std::int64_t>(0 - value));
        expectDecimal(static_cast<std::int32_t>(0 - static_cast<std::uint32_t>(value)));
    }
    expectDecimal(std::numeric_limits<std::int64_t>::min());
    expectDecimal(std::numeric_limits<std::int32_t>::min());
    expectDecimal(std::numeric_limits<std::int16_t>::min());
    expectDecimal(std::numeric_limits<std::int8_t>::min());
}

TEST(TextPieces, DecimalTextOfRandomValuesOfEveryWidth) {
    // Every number of digits, in a random order, for each width.
    std::mt19937_64 random(20261125);
    for (int i = 0; i < 20000; ++i) {
        atEveryWidth(random() >> (random() % 64), [](auto cut) { expectDecimal(cut); });
    }
}

/// "0x" and the pattern in lowercase hex, signed 8-bit values widened to 32
/// bits: as "%#x"-like texts from std::to_chars.
template <typename T>
std::string hexText(T value) {
    std::uint64_t pattern;
    if constexpr (std::is_same<T, std::int8_t>::value) {
        pattern = static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    } else {
        pattern = static_cast<std::make_unsigned_t<T>>(value);
    }
    char digits[20];
    const auto result = std::to_chars(digits, digits + sizeof digits, pattern, 16);
    return "0x" + std::string(digits, result.ptr);
}

template <typename T>
void expectHex(T value) {
    const std::string expected = hexText(value);
    TextBuilder text;
    text.append("x=", 2);
    Tav::detail::appendHex(text, value);
    EXPECT_EQ(std::string(text.view()), "x=" + expected) << "value " << +value;
    std::string appended;
    Tav::detail::appendHex(appended, value);
    EXPECT_EQ(appended, expected) << "value " << +value;
    // Written in place: within its room of 18 characters, nothing before.
    char buffer[40];
    std::memset(buffer, '#', sizeof buffer);
    char* const at = buffer + 8;
    const char* const end = Tav::detail::writeHex(at, value);
    EXPECT_EQ(std::string(static_cast<const char*>(at), end), expected) << "value " << +value;
    EXPECT_EQ(std::string(buffer, at), std::string(8, '#')) << "value " << +value;
    EXPECT_EQ(std::string(at + 18, buffer + sizeof buffer), std::string(sizeof buffer - 26, '#'))
        << "value " << +value;
}

TEST(TextPieces, HexTextOfEveryWidthAtEveryNibbleBoundary) {
    std::vector<std::uint64_t> values = {
        0, 1, 9, 10, 15, 16, 0xa5, 0xdeadbeef, 0x0123456789abcdefull, ~std::uint64_t{0}};
    for (int bit = 0; bit < 64; ++bit) {
        values.push_back((std::uint64_t{1} << bit) - 1);
        values.push_back(std::uint64_t{1} << bit);
        values.push_back(~std::uint64_t{0} << bit);
    }
    std::mt19937_64 random(20261125);
    for (int i = 0; i < 20000; ++i) {
        values.push_back(random() >> (random() % 64));
    }
    for (const std::uint64_t value : values) {
        atEveryWidth(value, [](auto cut) { expectHex(cut); });
    }
}

TEST(TextPieces, DecimalTextsFollowEachOtherAcrossGrowth) {
    // Many texts in one builder: every room check that grows the buffer
    // keeps what was written before.
    TextBuilder text;
    std::string expected;
    for (std::uint32_t i = 0; i < 5000; ++i) {
        const std::uint32_t value = i * 2654435761u;
        Tav::detail::appendDecimal(text, value);
        text.push_back(' ');
        expected += std::to_string(value) + " ";
    }
    EXPECT_EQ(std::string(text.view()), expected);
}

}  // namespace
