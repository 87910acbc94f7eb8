// Netlink octets: lengths that lie are not followed, neither into a message nor out of a buffer.
#include "nsmd_support.h"

namespace {

TEST(nsmd_netlink, walking_ends_at_lengths_that_make_no_sense) {
    nl_message m;
    nl_attr a;
    const message zeros(32, 0);  // length 0: would turn for ever
    const_octets rest{zeros};
    EXPECT_FALSE(nl_next_message(&rest, &m));
    EXPECT_FALSE(nl_next_attr(&rest, &a));
    message cut = link_octets("sw1 1");
    cut.pop_back();
    rest = cut;
    EXPECT_FALSE(nl_next_message(&rest, &m));
    // The last attribute may lack its padding.
    const std::uint8_t odd[] = {5, 0, 1, 0, 42};
    rest = odd;
    ASSERT_TRUE(nl_next_attr(&rest, &a));
    EXPECT_EQ(nl_u8(a.value), 42);
    EXPECT_EQ(nl_u32(a.value), 0U);  // too short for its type
    EXPECT_TRUE(rest.empty());
}

TEST(nsmd_netlink, a_request_too_long_is_marked_and_stays_within_its_buffer) {
    nl_builder b;
    nl_begin(&b, 1, 0, 1);
    for (int i = 0; i < 200; ++i) nl_put_u32(&b, 1, 7);
    EXPECT_TRUE(b.overflow);
    EXPECT_LE(b.length, sizeof b.data);
}

}  // namespace
