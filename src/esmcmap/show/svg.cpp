// Plain SVG with its style inside, light and dark by the reader's preference. Colour never speaks alone: the
// quality stands below each switch, holdover is dashed, a loop is thick and says so in the title.
#include "esmcmap/show/svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "esmcmap/model/quality.h"

namespace esmcmap {

namespace {

constexpr double RADIUS = 18, MARGIN = 70;

constexpr const char* STYLE = R"(
svg{background:#fff;font:12px sans-serif}text{fill:#222;text-anchor:middle}.q{font-size:10px;fill:#555}
.n{stroke:#444;stroke-width:1.5}.best{fill:#bfe3c8}.good{fill:#d8ebb5}.own{fill:#f6dfa4}.none{fill:#ddd}
.away{stroke-dasharray:5 3;stroke-width:2.5}.silent{opacity:.45}.bad{stroke:#c00;stroke-width:4}
.l{stroke:#999;stroke-width:1.5}.c{stroke:#2a6;stroke-width:2.5}.x{stroke:#c00;stroke-width:4}.d{stroke-dasharray:2 4}
marker path{fill:#2a6}#red path{fill:#c00}
@media (prefers-color-scheme:dark){svg{background:#16181c}text{fill:#eee}.q{fill:#bbb}.n{stroke:#bbb}
.best{fill:#1f5a33}.good{fill:#4d6419}.own{fill:#7a5a10}.none{fill:#444}.l{stroke:#666}}
)";

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : text) switch (c) {
            case '&':
                safe += "&amp;";
                break;
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '"':
                safe += "&quot;";
                break;
            default:
                safe += c;
        }
    return safe;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

const char* colour_class(const std::string& quality) {
    if (!usable_quality(quality)) return "none";
    if (quality_rank(quality) <= quality_rank("prc")) return "best";
    return quality_rank(quality) < quality_rank("eeec") ? "good" : "own";
}

class drawing {
  public:
    explicit drawing(const network& of) : net(of) {
        for (const node& one : net.nodes) at[one.id] = &one;
    }

    std::string draw() {
        frame();
        for (const link& one : net.links) draw_link(one);
        for (const node& one : net.nodes) draw_node(one);
        return text + "</svg>\n";
    }

  private:
    const network& net;
    std::map<std::string, const node*> at;
    std::string text;

    std::string title() const {
        std::string words = std::to_string(net.nodes.size()) + " nodes";
        for (const auto& loop : net.loops) {
            words += ". Loop:";
            for (const auto& name : loop) words += " " + name;
        }
        for (const island& one : net.islands) words += ". Island of " + one.root + " in " + one.state;
        return words;
    }

    void frame() {
        double right = 0, bottom = 0;
        for (const node& one : net.nodes) {
            right = std::max(right, one.at.x);
            bottom = std::max(bottom, one.at.y);
        }
        const std::string width = number(right + 2 * MARGIN), height = number(bottom + 2 * MARGIN);
        text = "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" viewBox=\"0 0 " + width + " " +
               height + "\" width=\"" + width + "\" height=\"" + height + "\">\n<title>" + escaped(title()) +
               "</title><style>" + STYLE +
               "</style>\n<defs><marker id=\"arrow\" viewBox=\"0 0 8 8\" refX=\"7\" refY=\"4\" "
               "markerWidth=\"9\" markerHeight=\"9\" markerUnits=\"userSpaceOnUse\" "
               "orient=\"auto\"><path d=\"M0 0L8 4L0 8z\"/></marker><marker id=\"red\" viewBox=\"0 0 8 8\" "
               "refX=\"7\" refY=\"4\" markerWidth=\"12\" markerHeight=\"12\" "
               "markerUnits=\"userSpaceOnUse\" orient=\"auto\"><path d=\"M0 0L8 4L0 8z\"/></marker></defs>\n";
    }

    // From rim to rim, in the clock's direction.
    void draw_link(const link& one) {
        point from = at[one.a]->at, to = at[one.b]->at;
        if (one.clock == 'b') std::swap(from, to);
        const double dx = to.x - from.x, dy = to.y - from.y, far = std::max(1.0, std::hypot(dx, dy));
        const double gap = RADIUS + 3;
        const auto place = [&](const char* name, double value) {
            text += std::string(" ") + name + "=\"" + number(value + MARGIN) + "\"";
        };
        const char* kind = one.loop ? "x" : one.clock ? "c" : "l";
        text += std::string("<line class=\"") + kind + (one.up ? "" : " d") + "\"";
        place("x1", from.x + dx / far * gap);
        place("y1", from.y + dy / far * gap);
        place("x2", to.x - dx / far * gap);
        place("y2", to.y - dy / far * gap);
        if (one.clock) text += one.loop ? " marker-end=\"url(#red)\"" : " marker-end=\"url(#arrow)\"";
        text += "/>\n";
    }

    void draw_node(const node& one) {
        const std::string quality = one.report ? one.report->quality : "none";
        const std::string state = one.report ? one.report->state : "";
        std::string classes = std::string("n ") + colour_class(quality);
        if (state == "holdover" || state == "freerun") classes += " away";
        if (one.loop) classes += " bad";
        text += "<g transform=\"translate(" + number(one.at.x + MARGIN) + " " + number(one.at.y + MARGIN) +
                ")\"" + (one.how == answer::ok || one.stranger ? "" : " class=\"silent\"") + ">";
        if (one.stranger)
            text += "<rect class=\"" + classes + "\" x=\"-14\" y=\"-14\" width=\"28\" height=\"28\"/>";
        else
            text += "<circle class=\"" + classes + "\" r=\"" + (state == "master" ? "22" : "18") + "\"/>";
        text += "<text y=\"4\">" + escaped(one.id) + "</text><text class=\"q\" y=\"33\">" +
                escaped(one.stranger ? "stranger" : quality + (state == "lock" ? "" : " " + state)) +
                "</text></g>\n";
    }
};

}  // namespace

std::string svg_map(const network& net) {
    return drawing(net).draw();
}

}  // namespace esmcmap
