// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/ui/diagram.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "devkit/glib.h"
#include "devkit/outside-text.h"
#include "programs/common/names.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

using Kind = Event::Kind;

constexpr int kTimeWidth = 110;  // left of the lanes
constexpr int kLaneWidth = 340;
constexpr int kTop = 70;  // above the first row
constexpr int kRowHeight = 38;
constexpr int kLineHeight = 16;  // of each further line of a caption
constexpr int kHeadHeight = 36;
constexpr int kHeadWidth = 160;
constexpr int kMargin = 30;
constexpr int kRightWidth = 150;            // for what stands beside the last lane
constexpr int kStub = kLaneWidth / 2 - 30;  // length of an arrow to nobody

// Renderers differ; this is what the widest common typeface needs.
constexpr int kLetterWidth = 8;
constexpr int kWideLetterWidth = 14;

std::string Escape(const std::string& text) {
    return tevrol::TakeText(g_markup_escape_text(text.c_str(), -1));
}

int WidthOf(gunichar character) {
    return g_unichar_iswide(character) != FALSE        ? kWideLetterWidth
           : g_unichar_iszerowidth(character) != FALSE ? 0
                                                       : kLetterWidth;
}

int WidthOf(const std::string& text) {
    int width = 0;
    for (const gchar* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        width += WidthOf(g_utf8_get_char(at));
    }
    return width;
}

// The bytes of printable `text` that fit, whole characters, up to a space where there is one.
std::size_t Fitting(const std::string& text, int width) {
    std::size_t last_space = 0;
    int used = 0;
    for (const gchar* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const auto place = static_cast<std::size_t>(at - text.c_str());
        used += WidthOf(g_utf8_get_char(at));
        if (used > width && place > 0) {
            return last_space > 0 ? last_space : place;
        }
        if (*at == ' ') {
            last_space = place;
        }
    }
    return text.size();
}

// Printable `text` in lines of that width, the last one shortened if there are too many.
std::vector<std::string> Wrapped(std::string text, int width) {
    constexpr std::size_t kMostLines = 3;
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t fits = Fitting(text, width);
        if (fits < text.size() && lines.size() + 1 == kMostLines) {
            text.resize(Fitting(text, width - kWideLetterWidth));
            lines.push_back(text + "\u2026");
            break;
        }
        lines.push_back(text.substr(0, fits));
        text.erase(0, fits);
        text.erase(0, text.find_first_not_of(' '));
    }
    return lines;
}

// How long a process has a lane. Rows count from 0.
struct Life {
    std::string process;
    std::string role;
    std::size_t lane = 0;
    std::size_t first = 0;
    std::size_t last = 0;
    bool ended = false;
};

// Who is in which lane when.
class Lanes {
public:
    explicit Lanes(const std::vector<Event>& rows) {
        for (std::size_t row = 0; row < rows.size(); ++row) {
            const Event& event = rows[row];
            Appear(event.from, event.role, row);
            Appear(event.to, "", row);
            if (event.kind == Kind::Lost) {
                Life& life = m_lives[m_alive.at(event.from)];
                life.ended = true;
                m_taken[life.lane] = false;
                m_alive.erase(event.from);
            }
        }
        for (const auto& [process, life] : m_alive) {
            m_lives[life].last = rows.size();
        }
    }

    const std::vector<Life>& All() const {
        return m_lives;
    }
    std::size_t Count() const {
        return m_taken.size();
    }
    // The middle of the lane that `process` has in that row.
    int X(const std::string& process, std::size_t row) const {
        const auto life = std::find_if(m_lives.begin(), m_lives.end(), [&](const Life& one) {
            return one.process == process && one.first <= row && row <= one.last;
        });
        return XOf(*life);
    }
    static int XOf(const Life& life) {
        return kTimeWidth + kLaneWidth / 2 + static_cast<int>(life.lane) * kLaneWidth;
    }

private:
    void Appear(const std::string& process, const std::string& role, std::size_t row) {
        if (process.empty() || process == kDriver) {
            return;
        }
        const auto alive = m_alive.find(process);
        if (alive == m_alive.end()) {
            m_alive[process] = m_lives.size();
            m_lives.push_back({process, role, FreeLane(role), row, row, false});
            return;
        }
        Life& life = m_lives[alive->second];
        life.last = row;
        if (life.role.empty()) {
            life.role = role;
        }
    }

    // One whose last process had this role, if there is one.
    std::size_t FreeLane(const std::string& role) {
        std::size_t free = m_taken.size();
        for (std::size_t lane = m_taken.size(); lane-- > 0;) {
            if (!m_taken[lane] &&
                (free == m_taken.size() || LastRoleIn(lane) == role || LastRoleIn(free) != role)) {
                free = lane;
            }
        }
        if (free == m_taken.size()) {
            m_taken.push_back(true);
        }
        m_taken[free] = true;
        return free;
    }
    std::string LastRoleIn(std::size_t lane) const {
        const auto last = std::find_if(m_lives.rbegin(), m_lives.rend(),
                                       [&](const Life& life) { return life.lane == lane; });
        return last == m_lives.rend() ? "" : last->role;
    }

    std::vector<Life> m_lives;
    std::map<std::string, std::size_t> m_alive;  // index of its life
    std::vector<bool> m_taken;                   // by lane
};

// The rows of one page, `first` to before `last`.
class Page {
public:
    Page(const std::vector<Event>& rows, const Lanes& lanes, std::size_t first, std::size_t last,
         bool several_channels)
        : m_rows(rows),
          m_lanes(lanes),
          m_first(first),
          m_last(last),
          m_several_channels(several_channels) {}

    std::string Draw(const std::string& note) {
        Lay(note.empty() ? kTop : kTop + kLineHeight);
        const int lanes = std::max<int>(1, static_cast<int>(m_lanes.Count()));
        const int width = kTimeWidth + lanes * kLaneWidth + kRightWidth;
        m_svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << width << "\" height=\""
              << m_height << "\" viewBox=\"0 0 " << width << " " << m_height
              << "\" font-family=\"sans-serif\" font-size=\"13\">\n"
              << "<title>Messages on the bus</title>\n"
              << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
              << "<defs>" << Head("filled", "M0,0 L9,4.5 L0,9 z", "black")
              << Head("open", "M0,0 L9,4.5 L0,9", "none") << "</defs>\n";
        if (!note.empty()) {
            Text(10, kLineHeight, "start", R"(fill="#444" font-size="11")", note);
        }
        DrawLives();
        for (std::size_t row = m_first; row < m_last; ++row) {
            DrawRow(row);
        }
        m_svg << "</svg>\n";
        return m_svg.str();
    }

private:
    static std::string Head(const std::string& id, const std::string& path,
                            const std::string& fill) {
        return "<marker id=\"" + id +
               "\" markerWidth=\"10\" markerHeight=\"10\" refX=\"9\" refY=\"4.5\" orient=\"auto\" "
               "markerUnits=\"userSpaceOnUse\"><path d=\"" +
               path + "\" fill=\"" + fill + R"(" stroke="black"/></marker>)";
    }

    // ---- Where everything stands ----

    bool IsOnPage(const Life& life) const {
        return life.first < m_last && life.last >= m_first;
    }

    // The first process of a lane on this page has its head at the top, a later one where it
    // begins.
    bool BeginsBelow(const Life& life) const {
        if (!IsOnPage(life) || life.first <= m_first) {
            return false;
        }
        return std::any_of(m_lanes.All().begin(), m_lanes.All().end(), [&](const Life& other) {
            return other.lane == life.lane && other.first < life.first && IsOnPage(other);
        });
    }

    void Lay(int top) {
        m_top = top - kTop;
        int y = top;
        for (std::size_t row = m_first; row < m_last; ++row) {
            const auto begins = [&](const Life& life) {
                return life.first == row && BeginsBelow(life);
            };
            const auto& lives = m_lanes.All();
            y += std::any_of(lives.begin(), lives.end(), begins) ? kHeadHeight + 8 : 0;
            const auto lines = static_cast<int>(CaptionOf(row).size());
            y += (std::max(lines, 1) - 1) * kLineHeight;
            m_y[row] = y + 24;
            y += kRowHeight;
        }
        m_height = y + kMargin;
    }

    // ---- Lanes ----

    void DrawLives() {
        for (const Life& life : m_lanes.All()) {
            if (!IsOnPage(life)) {
                continue;
            }
            const int x = Lanes::XOf(life);
            const int top = BeginsBelow(life) ? TopOf(life.first) - kHeadHeight : m_top + 14;
            const bool ends = life.ended && life.last < m_last;
            const int bottom = ends ? m_y[life.last] : m_height - 10;
            m_svg << "<line x1=\"" << x << "\" y1=\"" << top + kHeadHeight << "\" x2=\"" << x
                  << "\" y2=\"" << bottom << "\" stroke=\"#777\" stroke-dasharray=\"5 4\"/>\n"
                  << "<rect x=\"" << x - kHeadWidth / 2 << "\" y=\"" << top << "\" width=\""
                  << kHeadWidth << "\" height=\"" << kHeadHeight << R"(" rx="4" )"
                  << "fill=\"#eef2f6\" stroke=\"black\"/>\n";
            const std::string role = life.role == kClient ? "client "
                                     : life.role.empty()  ? ""
                                                          : "service ";
            Text(x, top + 23, "middle", "font-weight=\"bold\"",
                 Wrapped(tevrol::Printable(role + life.process), kHeadWidth - 8).front());
        }
    }

    // Above the caption of that row.
    int TopOf(std::size_t row) const {
        const auto lines = static_cast<int>(CaptionOf(row).size());
        return m_y.at(row) - 20 - (std::max(lines, 1) - 1) * kLineHeight;
    }

    // ---- Rows ----

    // Seconds since the first event.
    std::string Time(const Event& event) const {
        return tevrol::TakeText(g_strdup_printf(
            "%.4f s", static_cast<double>(event.time - m_rows.front().time) / G_USEC_PER_SEC));
    }

    std::string Channel(const Event& event) const {
        return m_several_channels ? event.channel + ": " : "";
    }

    static bool IsBox(const Event& event) {
        return event.kind == Kind::Bound || event.kind == Kind::Ready ||
               event.kind == Kind::Present || event.kind == Kind::Active ||
               event.kind == Kind::Standby || event.kind == Kind::Waiting;
    }

    static bool JoinsTwo(const Event& event) {
        return !event.to.empty() && event.to != event.from && event.from != kDriver &&
               event.to != kDriver;
    }

    std::vector<std::string> CaptionOf(std::size_t row) const {
        const Event& event = m_rows[row];
        if (event.kind == Kind::Lost) {
            return Wrapped(tevrol::Printable(Channel(event) + "left the bus" +
                                             (event.text.empty() ? "" : ": " + event.text)),
                           kLaneWidth - 40);
        }
        const bool wide = JoinsTwo(event) && !(IsBox(event) && event.kind != Kind::Ready &&
                                               event.kind != Kind::Waiting);
        const int span =
            wide ? std::abs(m_lanes.X(event.from, row) - m_lanes.X(event.to, row)) : kLaneWidth;
        return Wrapped(IsBox(event) ? StateOf(event) : MessageOf(event), span - 30);
    }

    std::string StateOf(const Event& event) const {
        std::string state = Channel(event);
        switch (event.kind) {
            case Kind::Ready:
                state += "ready" + (event.duration > 0 ? " after " + Duration(event.duration) : "");
                break;
            case Kind::Bound:
                state += "bound to " + event.to;
                break;
            case Kind::Waiting:
                state += "bound and not ready";
                break;
            default:
                state += Label(event);
        }
        return tevrol::Printable(state + (event.text.empty() ? "" : ": " + event.text));
    }

    std::string MessageOf(const Event& event) const {
        std::string message = Channel(event);
        if (event.kind == Kind::Released) {
            message += event.role + "_" + event.stage;
        } else if (event.kind == Kind::Refused) {
            message += event.role + "_" + event.stage + " refused";
        } else {
            message += Label(event);
        }
        message = tevrol::Printable(message);
        // First, as what follows may be cut.
        if (event.kind == Kind::Reply || event.kind == Kind::Error) {
            message += " after " + Duration(event.duration) + ":";
        }
        if (HasPayload(event)) {
            message += " " + Payload(event);
        }
        if (!event.text.empty()) {
            message += (event.kind == Kind::Error || event.kind == Kind::Malformed ? " " : ": ") +
                       tevrol::Printable(event.text);
        }
        return message;
    }

    static std::string Payload(const Event& event) {
        const auto shown = static_cast<std::ptrdiff_t>(std::min(event.payload.size(), kDrawnBytes));
        return tevrol::DescribeBeginning(
            tevrol::Bytes(event.payload.begin(), event.payload.begin() + shown), event.size);
    }

    void Text(int x, int y, const std::string& anchor, const std::string& style,
              const std::string& text) {
        // The white seam keeps it readable across a line.
        m_svg << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor
              << R"(" stroke="white" stroke-width="3" paint-order="stroke" )" << style << ">"
              << Escape(text) << "</text>\n";
    }

    // The last of the lines stands at `y`.
    void Lines(int x, int y, const std::string& anchor, const std::string& style,
               const std::vector<std::string>& lines) {
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const auto above = static_cast<int>(lines.size() - 1 - i);
            Text(x, y - above * kLineHeight, anchor, style, lines[i]);
        }
    }

    void DrawRow(std::size_t row) {
        const Event& event = m_rows[row];
        const int y = m_y[row];
        Text(kTimeWidth - 14, y + 4, "end", R"(fill="#444" font-size="11")", Time(event));
        if (IsBox(event)) {
            DrawState(row, y);
        } else if (event.kind == Kind::Lost) {
            const int x = m_lanes.X(event.from, row);
            m_svg << "<path d=\"M" << x - 8 << "," << y - 8 << " l16,16 m0,-16 l-16,16\" "
                  << "stroke=\"#b00020\" stroke-width=\"2.5\"/>\n";
            Lines(x + 16, y + 4, "start", "fill=\"#b00020\"", CaptionOf(row));
        } else {
            DrawArrow(row, y);
        }
    }

    // Where the arrow of an event begins and ends. What the bus sends comes from beside the lane.
    std::pair<int, int> EndsOf(std::size_t row) const {
        const Event& event = m_rows[row];
        if (JoinsTwo(event)) {
            return {m_lanes.X(event.from, row), m_lanes.X(event.to, row)};
        }
        if (event.from == kDriver) {
            const int to = event.to.empty() ? kTimeWidth + kStub : m_lanes.X(event.to, row);
            return {to - kStub, to};
        }
        const int from = m_lanes.X(event.from, row);
        return {from, from + kStub};
    }

    void DrawArrow(std::size_t row, int y) {
        const Event& event = m_rows[row];
        const auto [from, to] = EndsOf(row);
        const bool returns = event.kind == Kind::Reply || event.kind == Kind::Error;
        const bool called = event.kind == Kind::Request || returns;
        const bool bad = event.kind == Kind::Refused || event.kind == Kind::Error ||
                         event.kind == Kind::Malformed;
        m_svg << "<line x1=\"" << from << "\" y1=\"" << y + 4 << "\" x2=\"" << to << "\" y2=\""
              << y + 4 << "\" stroke=\"" << (bad ? "#b00020" : "black") << "\""
              << (returns ? " stroke-dasharray=\"7 4\"" : "") << " marker-end=\"url(#"
              << (called ? "filled" : "open") << ")\"/>\n";
        const std::string style = bad ? "fill=\"#b00020\"" : "";
        if (JoinsTwo(event)) {
            Lines((from + to) / 2, y - 3, "middle", style, CaptionOf(row));
        } else {
            Lines(std::min(from, to) + 8, y - 3, "start", style, CaptionOf(row));
        }
    }

    void DrawState(std::size_t row, int y) {
        const Event& event = m_rows[row];
        const bool two =
            JoinsTwo(event) && (event.kind == Kind::Ready || event.kind == Kind::Waiting);
        const auto lines = CaptionOf(row);
        int text_width = 0;
        for (const std::string& line : lines) {
            text_width = std::max(text_width, WidthOf(line));
        }
        const int first = m_lanes.X(event.from, row);
        const int second = two ? m_lanes.X(event.to, row) : first;
        const int half = two ? kHeadWidth / 2 : std::max(kHeadWidth, text_width + 16) / 2;
        const int left = std::min(first, second) - half;
        const int right = std::max(first, second) + half;
        const int above = (static_cast<int>(lines.size()) - 1) * kLineHeight;
        const char* const fill = event.kind == Kind::Ready     ? "#dff3e3"
                                 : event.kind == Kind::Waiting ? "#fde3e3"
                                                               : "#fff6d6";
        m_svg << "<rect x=\"" << left << "\" y=\"" << y - 11 - above << "\" width=\""
              << right - left << "\" height=\"" << 24 + above
              << R"(" rx="12" stroke="black" fill=")" << fill << "\"/>\n";
        for (std::size_t i = 0; i < lines.size(); ++i) {
            m_svg << "<text x=\"" << (left + right) / 2 << "\" y=\""
                  << y + 5 - above + static_cast<int>(i) * kLineHeight
                  << R"(" text-anchor="middle">)" << Escape(lines[i]) << "</text>\n";
        }
    }

    const std::vector<Event>& m_rows;
    const Lanes& m_lanes;
    const std::size_t m_first;
    const std::size_t m_last;
    const bool m_several_channels;
    int m_top = 0;                   // above the heads
    std::map<std::size_t, int> m_y;  // by row
    int m_height = 0;
    std::ostringstream m_svg;
};

std::string Note(std::size_t page, std::size_t pages, std::size_t left_out) {
    std::string note;
    if (pages > 1) {
        note = "page " + std::to_string(page) + " of " + std::to_string(pages) + ". ";
    }
    if (left_out > 0) {
        note += std::to_string(left_out) + " earlier events are left out.";
    }
    return note;
}

}  // namespace

std::vector<std::string> Diagram(const std::vector<Event>& events, std::size_t rows,
                                 std::size_t left_out) {
    std::vector<Event> drawn;
    bool several_channels = false;
    for (const Event& event : events) {
        several_channels = several_channels || event.channel != events.front().channel;
        // The release is the announcement, and it is drawn alone.
        if (event.kind != Kind::Owned) {
            drawn.push_back(event);
        }
    }
    const Lanes lanes(drawn);
    const std::size_t count = std::max<std::size_t>(1, (drawn.size() + rows - 1) / rows);
    std::vector<std::string> pages;
    for (std::size_t page = 0; page < count; ++page) {
        const std::size_t first = page * rows;
        const std::size_t last = std::min(first + rows, drawn.size());
        pages.push_back(Page(drawn, lanes, first, last, several_channels)
                            .Draw(Note(page + 1, count, left_out)));
    }
    return pages;
}

}  // namespace programs
