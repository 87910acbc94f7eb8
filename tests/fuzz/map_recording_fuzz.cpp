// A line of a recording, any octets: what is taken of it is shown as it was.
#include "map_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace map_rules;
    picture read, again;
    const std::string line(data, data + size), wrong = read_picture(line, read);
    if (!wrong.empty()) return 0;
    const std::string whole = whole_json(read);
    must(json::parse(whole).is_object(), "a state is JSON");
    must(read_picture(whole, again).empty() && !share(again, read), "a state reads as it was written");
    records shown;
    shown.publish(std::move(read));
    shown.publish(std::move(again));
    must(json::parse(shown.history_json()).is_object(), "the history is JSON");
    must(json::parse(shown.changes_json()).is_object(), "the changes are JSON");
    return 0;
}
