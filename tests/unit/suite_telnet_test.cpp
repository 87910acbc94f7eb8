// The telnet decoder: octets in any pieces, no endless answers, window sizes with doubled octets.
#include <gtest/gtest.h>

#include <string>

#include "suite/telnet.h"

namespace {

struct Line {
    telnet_decoder decoder{};
    std::string data, replies, events;

    void take(std::string_view octets) {
        for (char c : octets) {
            std::uint8_t octet = 0;
            switch (telnet_take(&decoder, static_cast<std::uint8_t>(c), &octet)) {
                case telnet_event::data:
                    data += static_cast<char>(octet);
                    break;
                case telnet_event::resized:
                    events += 'r';
                    break;
                case telnet_event::alive:
                    events += 'a';
                    break;
                case telnet_event::none:
                    break;
            }
            replies.append(reinterpret_cast<const char*>(decoder.reply), decoder.reply_length);
        }
    }
};

using namespace std::string_view_literals;

TEST(Telnet, AnswersToOurOwnRequestsAreNotAnswered) {
    Line line;
    line.take("\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0x"sv);
    EXPECT_EQ(line.replies, "");
    EXPECT_EQ(line.data, "x");
    EXPECT_EQ(line.events, "r");
    EXPECT_EQ(line.decoder.columns, 80);
    EXPECT_EQ(line.decoder.rows, 24);
}

TEST(Telnet, OtherOptionsAreRefusedOnce) {
    Line line;
    for (int i = 0; i < 3; i++) line.take("\xff\xfb\x18\xff\xfd\x27\xff\xfe\x27\xff\xfc\x18");
    EXPECT_EQ(line.replies, "\xff\xfe\x18\xff\xfc\x27");
}

TEST(Telnet, EveryTimingMarkIsAnswered) {
    Line line;
    line.take("\xff\xf4\xff\xfd\x06\xff\xf4\xff\xfd\x06");
    EXPECT_EQ(line.data, "\x03\x03") << "the interrupt key";
    EXPECT_EQ(line.replies, "\xff\xfc\x06\xff\xfc\x06");
}

TEST(Telnet, DoubledOctetsAndOddCommands) {
    Line line;
    line.take(
        "a\xff\xff"
        "b\xff\xf6\xff\xf1\xff\xf7\xff\xf8\xff\xec"
        "c");
    EXPECT_EQ(line.data,
              "a\xff"
              "b\x7f\x15\x04"
              "c");
    EXPECT_EQ(line.events, "a");
    line.take("\xff\xfa\x1f\xff\xff\xff\xff\x00\xff\xff\xff\xf0"sv);
    EXPECT_EQ(line.decoder.columns, 0xffff);
    EXPECT_EQ(line.decoder.rows, 0x00ff);
}

TEST(Telnet, OversizedAndBrokenSubnegotiations) {
    Line line;
    line.take("\xff\xfa\x1f");
    line.take(std::string(100'000, 'x'));
    line.take("\xff\xf0y");
    line.take("\xff\xfa\x1f\x00\x50\xff\xf1z"sv);
    EXPECT_EQ(line.events, "");
    EXPECT_EQ(line.data, "yz");
}

}  // namespace
