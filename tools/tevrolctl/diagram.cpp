#include "tools/tevrolctl/diagram.h"

#include <algorithm>
#include <sstream>

#include "tools/tevrolctl/command-line.h"

namespace tevrolctl {
namespace {

constexpr int kTimeWidth = 110;  // left of the lanes
constexpr int kLaneWidth = 340;
constexpr int kTop = 70;  // above the first row
constexpr int kRowHeight = 38;
constexpr int kMargin = 30;
constexpr std::size_t kShownBytes = 16;

std::string Escape(const std::string& text) {
    gchar* valid = g_utf8_make_valid(text.c_str(), -1);
    gchar* escaped = g_markup_escape_text(valid, -1);
    std::string result = escaped;
    g_free(escaped);
    g_free(valid);
    return result;
}

class Drawing {
public:
    explicit Drawing(const std::vector<Event>& events) {
        for (const Event& event : events) {
            // Names are acquired to be released: the release is what counts, and is drawn.
            if (event.kind != "owned") {
                m_events.push_back(event);
                AddLane(event.from, event.role);
                AddLane(event.to, "");
            }
            m_several_channels = m_several_channels || event.channel != events.front().channel;
        }
    }

    std::string Draw() {
        const int width =
            kTimeWidth + std::max<int>(1, static_cast<int>(m_lanes.size())) * kLaneWidth;
        const int height = kTop + static_cast<int>(m_events.size()) * kRowHeight + kMargin;
        m_svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << width << "\" height=\""
              << height << "\" viewBox=\"0 0 " << width << " " << height
              << "\" font-family=\"sans-serif\" font-size=\"13\">\n"
              << "<title>Messages on the bus</title>\n"
              << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
              << "<defs>" << Head("filled", "M0,0 L9,4.5 L0,9 z", "black")
              << Head("open", "M0,0 L9,4.5 L0,9", "none") << "</defs>\n";
        DrawLanes(height);
        for (std::size_t i = 0; i < m_events.size(); ++i) {
            DrawRow(m_events[i], kTop + static_cast<int>(i) * kRowHeight + 24);
        }
        m_svg << "</svg>\n";
        return m_svg.str();
    }

private:
    struct Lane {
        std::string process;
        std::string role;
    };

    static std::string Head(const std::string& id, const std::string& path,
                            const std::string& fill) {
        return "<marker id=\"" + id +
               "\" markerWidth=\"10\" markerHeight=\"10\" refX=\"9\" refY=\"4.5\" orient=\"auto\" "
               "markerUnits=\"userSpaceOnUse\"><path d=\"" +
               path + "\" fill=\"" + fill + R"(" stroke="black"/></marker>)";
    }

    void AddLane(const std::string& process, const std::string& role) {
        if (process.empty()) {
            return;
        }
        const auto lane = Find(process);
        if (lane == m_lanes.end()) {
            m_lanes.push_back({process, role});
        } else if (lane->role.empty()) {
            lane->role = role;
        }
    }

    std::vector<Lane>::iterator Find(const std::string& process) {
        return std::find_if(m_lanes.begin(), m_lanes.end(),
                            [&](const Lane& lane) { return lane.process == process; });
    }

    int X(const std::string& process) {
        const auto index = static_cast<int>(Find(process) - m_lanes.begin());
        return kTimeWidth + kLaneWidth / 2 + index * kLaneWidth;
    }

    void Text(int x, int y, const std::string& anchor, const std::string& style,
              const std::string& text) {
        m_svg << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\" "
              << style << ">" << Escape(text) << "</text>\n";
    }

    void DrawLanes(int height) {
        for (const Lane& lane : m_lanes) {
            const int x = X(lane.process);
            m_svg << "<line x1=\"" << x << R"(" y1="50" x2=")" << x << "\" y2=\"" << height - 10
                  << "\" stroke=\"#777\" stroke-dasharray=\"5 4\"/>\n"
                  << "<rect x=\"" << x - 80 << R"(" y="14" width="160" height="36" rx="4" )"
                  << "fill=\"#eef2f6\" stroke=\"black\"/>\n";
            std::string role = lane.role == "CLIENT" ? "client "
                               : lane.role.empty()   ? ""
                                                     : "service ";
            Text(x, 37, "middle", "font-weight=\"bold\"", role + lane.process);
        }
    }

    void DrawRow(const Event& event, int y) {
        Text(kTimeWidth - 14, y + 4, "end", R"(fill="#444" font-size="11")", Time(event));
        if (event.kind == "bound" || event.kind == "ready") {
            DrawState(event, y);
        } else if (event.kind == "lost") {
            const int x = X(event.from);
            m_svg << "<path d=\"M" << x - 8 << "," << y - 8 << " l16,16 m0,-16 l-16,16\" "
                  << "stroke=\"#b00020\" stroke-width=\"2.5\"/>\n";
            Text(x + 16, y + 4, "start", "fill=\"#b00020\"", Channel(event) + "left the bus");
        } else {
            DrawArrow(event, y);
        }
    }

    // Seconds since the first event.
    std::string Time(const Event& event) const {
        gchar* text = g_strdup_printf(
            "%.4f s", static_cast<double>(event.time - m_events.front().time) / G_USEC_PER_SEC);
        std::string result = text;
        g_free(text);
        return result;
    }

    std::string Channel(const Event& event) const {
        return m_several_channels ? event.channel + ": " : "";
    }

    std::string Caption(const Event& event) const {
        std::string caption = Channel(event);
        if (event.kind == "released") {
            caption += event.role + "_" + event.stage;
        } else if (event.kind == "refused") {
            caption += event.role + "_" + event.stage + " refused: " + event.text;
        } else {
            caption += event.kind;
        }
        if (HasPayload(event)) {
            caption += " " + tevrol::Describe(event.payload, kShownBytes);
        } else if (event.kind == "error" || event.kind == "malformed") {
            caption += " " + event.text;
        }
        if (event.kind == "reply" || event.kind == "error") {
            caption += ", " + Duration(event.duration);
        }
        return Shortened(caption);
    }

    static std::string Shortened(const std::string& caption) {
        constexpr std::size_t kLongest = 52;
        return caption.size() <= kLongest ? caption : caption.substr(0, kLongest - 3) + "...";
    }

    void DrawArrow(const Event& event, int y) {
        const int from = X(event.from);
        const bool reaches = !event.to.empty() && event.to != event.from;
        const int to = reaches ? X(event.to) : from + kLaneWidth / 2 - 30;
        const bool returns = event.kind == "reply" || event.kind == "error";
        const bool called = event.kind == "request" || returns;
        const bool bad =
            event.kind == "refused" || event.kind == "error" || event.kind == "malformed";
        m_svg << "<line x1=\"" << from << "\" y1=\"" << y + 4 << "\" x2=\"" << to << "\" y2=\""
              << y + 4 << "\" stroke=\"" << (bad ? "#b00020" : "black") << "\""
              << (returns ? " stroke-dasharray=\"7 4\"" : "") << " marker-end=\"url(#"
              << (called ? "filled" : "open") << ")\"/>\n";
        Text((from + to) / 2, y - 3, "middle", bad ? "fill=\"#b00020\"" : "", Caption(event));
    }

    void DrawState(const Event& event, int y) {
        const bool ready = event.kind == "ready";
        const int first = X(event.from);
        const int second = ready ? X(event.to) : first;
        const int left = std::min(first, second) - 80;
        const int right = std::max(first, second) + 80;
        m_svg << "<rect x=\"" << left << "\" y=\"" << y - 11 << "\" width=\"" << right - left
              << R"(" height="24" rx="12" stroke="black" fill=")" << (ready ? "#dff3e3" : "#fff6d6")
              << "\"/>\n";
        const std::string state =
            ready ? "ready" + (event.duration > 0 ? " after " + Duration(event.duration) : "")
                  : "bound to " + event.to;
        Text((left + right) / 2, y + 5, "middle", "", Channel(event) + state);
    }

    std::vector<Event> m_events;
    std::vector<Lane> m_lanes;
    bool m_several_channels = false;
    std::ostringstream m_svg;
};

}  // namespace

std::string Diagram(const std::vector<Event>& events) {
    return Drawing(events).Draw();
}

}  // namespace tevrolctl
