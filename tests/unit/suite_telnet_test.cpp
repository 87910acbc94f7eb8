// The telnet decoder: octets in any pieces, no endless answers, window sizes with doubled octets.
#include <gtest/gtest.h>

#include <string>

#include "suite/terminal/telnet.h"

namespace {

using namespace std::string_view_literals;

struct Line {
    explicit Line(std::string_view octets) {
        for (char c : octets) {
            std::uint8_t octet = 0;
            telnet_event event = telnet_take(&decoder, static_cast<std::uint8_t>(c), &octet);
            if (event == telnet_event::data) data += static_cast<char>(octet);
            if (event == telnet_event::resized) events += 'r';
            if (event == telnet_event::alive) events += 'a';
            replies.append(reinterpret_cast<const char*>(decoder.reply), decoder.reply_length);
        }
    }
    telnet_decoder decoder{};
    std::string data, replies, events;
};

TEST(Telnet, AnswersToOurOwnRequestsAreNotAnswered) {
    Line line("\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0x"sv);
    EXPECT_EQ(line.replies, "");
    EXPECT_EQ(line.data, "x");
    EXPECT_EQ(line.events, "r");
    EXPECT_EQ(line.decoder.columns, 80);
    EXPECT_EQ(line.decoder.rows, 24);
}

TEST(Telnet, OtherOptionsAreRefusedOnceButEveryTimingMarkIsAnswered) {
    std::string options = "\xff\xfb\x18\xff\xfd\x27\xff\xfe\x27\xff\xfc\x18";
    EXPECT_EQ(Line(options + options + options).replies, "\xff\xfe\x18\xff\xfc\x27");
    Line line("\xff\xf4\xff\xfd\x06\xff\xf4\xff\xfd\x06");
    EXPECT_EQ(line.data, "\x03\x03") << "the interrupt key";
    EXPECT_EQ(line.replies, "\xff\xfc\x06\xff\xfc\x06");
}

TEST(Telnet, DoubledOctetsAndCommandsThatAreKeys) {
    Line line("a\xff\xff_\xff\xf6\xff\xf1\xff\xf7\xff\xf8\xff\xec.");
    EXPECT_EQ(line.data, "a\xff_\x7f\x15\x04.");
    EXPECT_EQ(line.events, "a");
    Line window("\xff\xfa\x1f\xff\xff\xff\xff\x00\xff\xff\xff\xf0"sv);
    EXPECT_EQ(window.decoder.columns, 0xffff);
    EXPECT_EQ(window.decoder.rows, 0x00ff);
}

TEST(Telnet, OversizedAndBrokenSubnegotiations) {
    Line line("\xff\xfa\x1f" + std::string(100'000, 'x') + "\xff\xf0y\xff\xfa\x1f\x01\x50\xff\xf1z");
    EXPECT_EQ(line.events, "");
    EXPECT_EQ(line.data, "yz");
}

}  // namespace
