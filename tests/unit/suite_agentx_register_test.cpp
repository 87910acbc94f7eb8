// The check that the handlers of SNMP scalars share.
#include "suite/snmp.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using oid = std::vector<snmp_oid>;

const void* read_nothing(const snmp_variable*, snmp_oid*, std::size_t*, int, std::size_t*,
                         snmp_write_handler*) {
    return nullptr;
}

snmp_variable object(const oid& suffix) {
    snmp_variable v{};
    v.type = SNMP_TYPE_INTEGER;
    v.access = SNMP_READ_ONLY;
    v.read = read_nothing;
    v.suffix_length = static_cast<std::uint16_t>(suffix.size());
    std::copy(suffix.begin(), suffix.end(), v.suffix);
    return v;
}

// The instance that answers, or nothing.
oid answers(const oid& object_suffix, const oid& asked, bool exact) {
    const snmp_variable v = object(object_suffix);
    snmp_oid name[128] = {};
    std::copy(asked.begin(), asked.end(), name);
    std::size_t name_length = asked.size(), value_length = 99;
    snmp_write_handler write = [](int, const std::uint8_t*, std::uint8_t, std::size_t, const std::uint8_t*,
                                  const snmp_oid*, std::size_t, const snmp_variable*) { return 0; };
    if (snmp_header_generic(&v, name, &name_length, exact, &value_length, &write) != 0) return {};
    EXPECT_EQ(value_length, 4u);
    EXPECT_EQ(write, nullptr);
    return oid(name, name + name_length);
}

TEST(AgentxScalar, GetMeansTheOneInstance) {
    const oid instance{13, 2, 0};
    EXPECT_EQ(answers({13, 2}, {13, 2, 0}, true), instance);
    for (const oid& other : {oid{}, oid{13}, oid{13, 2}, oid{13, 2, 1}, oid{13, 2, 0, 0}, oid{13, 3, 0}})
        EXPECT_TRUE(answers({13, 2}, other, true).empty());
}

TEST(AgentxScalar, GetNextFindsTheInstanceFromAnythingBeforeIt) {
    const oid instance{13, 2, 0};
    for (const oid& before : {oid{}, oid{5}, oid{13}, oid{13, 1, 9, 9}, oid{13, 2}, oid{12, 99, 99, 99}})
        EXPECT_EQ(answers({13, 2}, before, false), instance);
    for (const oid& after : {oid{13, 2, 0}, oid{13, 2, 0, 0}, oid{13, 2, 1}, oid{13, 3}, oid{14}})
        EXPECT_TRUE(answers({13, 2}, after, false).empty());
}

}  // namespace
