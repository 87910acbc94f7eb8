// The interface list: order, lookups while it grows and shrinks, and the order of the hooks.
#include "suite/ports/interface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/start/lib.h"

namespace {

using Words = std::vector<std::string>;

Words trace;
int bind_result;

// Which hook, and what it sees of the interface: bound, up.
template <char Word>
int note(interface* intf) {
    trace.push_back(std::string(1, Word) + (intf->bound ? "+" : "-") + (intf->up ? "^" : "_"));
    return Word == 'b' ? bind_result : -1;
}

class Interfaces : public ::testing::Test {
  protected:
    void SetUp() override {
        log_use_sink(LOG_SINK_STDERR, false);
        trace.clear();
        bind_result = 0;
        ifm->ctx = &ctx;
        EXPECT_EQ(if_add_hook(ifm, IF_CALLBACK_VR_BIND, note<'b'>), 0);
        EXPECT_EQ(if_add_hook(ifm, IF_CALLBACK_VR_UNBIND, note<'u'>), 0);
        EXPECT_EQ(if_add_hook(ifm, IF_CALLBACK_UP, note<'U'>), 0);
        EXPECT_EQ(if_add_hook(ifm, IF_CALLBACK_DOWN, note<'D'>), 0);
        for (int n : {-1, 0, 1, 4, 7, 8, 1000}) EXPECT_EQ(if_add_hook(ifm, n, note<'x'>), -1) << n;
        ifm->after_bind = [](lib_globals* l, interface* intf) {
            EXPECT_EQ(l->ifm.ctx, l);
            note<'a'>(intf);
        };
    }
    void TearDown() override {
        memmgr_fail_at(0);
        if_finish(ifm);
        EXPECT_EQ(memmgr_type_stats(MTYPE_IF).blocks, 0u);
    }
    lib_globals ctx{};
    if_master* ifm = &ctx.ifm;
};

TEST_F(Interfaces, HooksRunInOrderAndAfterBindBeforeUp) {
    interface* e = if_add(ifm, "eth1", 7, IF_TYPE_SYNCE);
    ASSERT_NE(e, nullptr);
    if_unbind(ifm, e);  // not bound: ignored
    if_bind(ifm, e);
    if_up(ifm, e);
    if_down(ifm, e);
    if_bind(ifm, e);
    if_remove(ifm, e);
    EXPECT_EQ(trace, (Words{"b-_", "a+_", "U+^", "D+_", "b+_", "a+_", "u+_"}));
    EXPECT_TRUE(if_list(ifm).empty());
}

// A port record that could not be made: the next bind is the first, and what waits for the interface waits
// on.
TEST_F(Interfaces, AFirstBindThatFailsIsNone) {
    interface* e = if_add(ifm, "eth1", 7, IF_TYPE_SYNCE);
    ASSERT_NE(e, nullptr);
    bind_result = -1;
    if_bind(ifm, e);
    if_unbind(ifm, e);
    bind_result = 0;
    if_bind(ifm, e);
    bind_result = -1;  // there already
    if_bind(ifm, e);
    trace.push_back("finish");
    if_finish(ifm);  // calls no hook
    EXPECT_EQ(trace, (Words{"b-_", "b-_", "a+_", "b+_", "a+_", "finish"}));
    EXPECT_EQ(if_lookup_by_index(ifm, 7), nullptr);
}

TEST_F(Interfaces, NamesAreCutAndIndexesAreUnique) {
    interface* e = if_add(ifm, "a-name-that-is-too-long", 7, 1);
    EXPECT_STREQ(e->name, "a-name-that-is-t");
    EXPECT_EQ(if_add(ifm, "other", 7, 1), nullptr);
    EXPECT_EQ(ifg_get_by_name(ifm, "other"), nullptr);
    EXPECT_EQ(ifg_get_by_name(ifm, nullptr), nullptr);
}

// Indexes that fall together in the table, removals from the middle of a chain, and growth in between.
TEST_F(Interfaces, LookupsAgreeWithAModelThroughAddsAndRemovals) {
    std::mt19937 random(2);
    std::vector<std::uint32_t> order;
    for (int step = 0; step < 6000; step++) {
        const std::uint32_t index = static_cast<std::uint32_t>(random() % 400) * (step % 2 ? 128 : 1);
        const auto at = std::find(order.begin(), order.end(), index);
        interface* found = if_lookup_by_index(ifm, index);
        ASSERT_EQ(found != nullptr, at != order.end());
        if (found != nullptr) {
            if_remove(ifm, found);
            order.erase(at);
        } else {
            const std::string name = "if" + std::to_string(index);
            interface* e = if_add(ifm, name.c_str(), index, IF_TYPE_SYNCE);
            ASSERT_NE(e, nullptr);
            ASSERT_EQ(if_lookup_by_name(ifm, name.c_str()), e);
            order.push_back(index);
        }
    }
    ASSERT_EQ(order.size(), if_list(ifm).size());
    for (std::size_t i = 0; i < order.size(); i++) EXPECT_EQ(if_list(ifm)[i]->ifindex, order[i]);
}

TEST_F(Interfaces, ExhaustedMemoryAtAnyPointLeavesAUsableList) {
    for (std::uint64_t nth = 1; nth <= 3; nth++) {
        if_finish(ifm);
        memmgr_fail_at(nth);
        EXPECT_EQ(if_add(ifm, "eth1", 1, IF_TYPE_SYNCE), nullptr);
        EXPECT_EQ(if_lookup_by_index(ifm, 1), nullptr);
        EXPECT_NE(if_add(ifm, "eth1", 1, IF_TYPE_SYNCE), nullptr);
    }
}

}  // namespace
