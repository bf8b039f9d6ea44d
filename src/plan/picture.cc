#include "plan/picture.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <set>

#include "common/utf8.h"
#include "plan/describe.h"
#include "plan/local_clock.h"
#include "plan/picture_axis.h"

namespace orv {
namespace {

// All in units of the picture.
constexpr int kMargin = 14;
constexpr int kLabelWidth = 220;
constexpr int kChartWidth = 1000;
constexpr int kTitleHeight = 30;
constexpr int kLegendHeight = 26;
constexpr int kAxisHeight = 24;
constexpr int kRowHeight = 22;
constexpr int kBarInset = 4;        // above and below a bar in its row
constexpr int kIndent = 14;         // of a job below the one that it waits for
constexpr int kMaxDepth = 5;        // deeper ones are indented no further
constexpr double kCharWidth = 6.4;  // of a text, on average
constexpr double kShortestBar = 2;  // a run of seconds is still to be seen
constexpr double kMerge = 0.7;      // bars nearer than this are drawn as one
constexpr double kStripes = 7;      // a narrower bar is pale instead of striped
constexpr std::size_t kRowsPerAxis = 40;

struct KindRow {
  const char* css;
  const char* legend;
};
// In the order of BarKind.
constexpr std::array<KindRow, 6> kKinds = {{{"time", "planned, at its time"},
                                            {"after", "planned, after others"},
                                            {"done", "done"},
                                            {"failed", "failed"},
                                            {"busy", "tool was busy"},
                                            {"running", "running"}}};

// Colours by class, for light and dark. A viewer that knows no media queries shows the light ones.
constexpr const char* kStyle = R"(<style>
.orv text{font:12px system-ui,"DejaVu Sans",sans-serif;fill:#1f2933}
.orv .title{font-size:15px;font-weight:600}.orv .dim{fill:#5f6b78}
.orv .bg{fill:#fff}.orv .night{fill:#eff2f8}.orv .weekend{fill:#fbf3e2}
.orv .grid{stroke:#e3e7ec}.orv .strong{stroke:#b9c2cc}.orv .tree{stroke:#a7b1bc;fill:none}
.orv .now{stroke:#d0021b;stroke-width:1.5;stroke-dasharray:5 3}.orv .nowtext{fill:#d0021b}
.orv .bar{fill:currentColor}.orv .line{stroke:currentColor}.orv .late{stroke-width:2;opacity:.6}
.orv .soft{opacity:.35}.orv .pale{opacity:.55}.orv .time{color:#2f6fb2}.orv .after{color:#c97f0a}.orv .done{color:#2e8b57}
.orv .failed{color:#c62f2f}.orv .busy{color:#8a94a0}.orv .running{color:#7a3fb0}
@media (prefers-color-scheme:dark){
.orv text{fill:#dfe5ec}.orv .dim{fill:#97a3b0}.orv .bg{fill:#14181d}.orv .night{fill:#1b2230}
.orv .weekend{fill:#292214}.orv .grid{stroke:#2a3139}.orv .strong{stroke:#4c5763}
.orv .tree{stroke:#5c6875}.orv .now{stroke:#ff6b6b}.orv .nowtext{fill:#ff6b6b}
.orv .time{color:#5b9be0}.orv .after{color:#e0a03a}.orv .done{color:#4fb57f}
.orv .failed{color:#f06a6a}.orv .running{color:#b58be0}}
</style>
)";

// Appends a short piece; texts of any length are appended as they are.
[[gnu::format(printf, 2, 3)]] void add(std::string& out, const char* format, ...) {
  std::array<char, 512> piece{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(piece.data(), piece.size(), format, args);
  va_end(args);
  out += piece.data();
}

const char* css_of(BarKind kind) { return kKinds[static_cast<std::size_t>(kind)].css; }

// The beginning of a name that is too long for its place; `text` is well-formed UTF-8.
std::string shortened(const std::string& text, std::size_t most) {
  if (utf8_length(text) <= most) return text;
  std::size_t end = 0;
  for (std::size_t shown = 0; shown + 1 < most; ++shown) {
    const std::size_t length = utf8_sequence(std::string_view(text).substr(end));
    end += std::max<std::size_t>(length, 1);
  }
  return text.substr(0, end) + "\u2026";
}

struct PictureRow {
  const Job* job = nullptr;
  int depth = 0;  // 0: it begins a chain
  int y = 0;
  std::vector<const Bar*> bars;  // by their start
};

class Drawing {
 public:
  Drawing(const Config& config, const Picture& picture)
      : config_(config),
        picture_(picture),
        scale_{picture.from, std::max(picture.to, picture.from + 1), kMargin + kLabelWidth,
               kChartWidth} {
    place_rows();
  }

  std::string document() {
    const int width = kMargin + kLabelWidth + kChartWidth + kMargin;
    const int height = bottom_ + kMargin;
    add(out_,
        "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"orv\" viewBox=\"0 0 %d %d\" "
        "width=\"%d\" height=\"%d\" style=\"max-width:100%%;height:auto\" role=\"img\">\n",
        width, height, width, height);
    out_ += "<title>" + escape_markup(picture_.title) + "</title>\n";
    out_ += kStyle;
    add_hatches();
    add(out_, "<rect class=\"bg\" width=\"%d\" height=\"%d\"/>\n", width, height);
    add(out_, "<text class=\"title\" x=\"%d\" y=\"%d\">", kMargin, 22);
    out_ += escape_markup(picture_.title) + "</text>\n";
    // From back to front: what comes later covers what was drawn before.
    add_legend();
    add_shades();
    add_axes();
    for (const PictureRow& row : rows_) add_row(row);
    add_now();
    return std::move(out_) + "</svg>\n";
  }

 private:
  // Each job stands below the first one that it waits for, chains in the order of the file.
  void place_rows() {
    std::map<const Job*, std::vector<const Bar*>> bars;
    for (const Bar& bar : picture_.bars) bars[bar.job].push_back(&bar);
    std::map<const Job*, std::vector<const Job*>> below;
    std::vector<const Job*> heads;
    for (const Job& job : config_.jobs) {
      if (!job.enabled && !bars.contains(&job)) continue;
      const Job* const above = job.after.empty() ? nullptr : find_job(config_, job.after[0].view());
      const bool shown = above != nullptr && (above->enabled || bars.contains(above));
      (shown ? below[above] : heads).push_back(&job);
    }
    for (const Job* head : heads) place_chain(head, 0, below, bars);
    bottom_ = kTitleHeight + kLegendHeight + kAxisHeight;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      if (i > 0 && i % kRowsPerAxis == 0) bottom_ += kAxisHeight;
      rows_[i].y = bottom_;
      bottom_ += kRowHeight;
    }
  }

  // Depth first, so that a chain stays together. The loader has refused cycles.
  void place_chain(const Job* job, int depth, std::map<const Job*, std::vector<const Job*>>& below,
                   std::map<const Job*, std::vector<const Bar*>>& bars) {
    std::vector<const Bar*>& own = bars[job];
    std::stable_sort(own.begin(), own.end(),
                     [](const Bar* a, const Bar* b) { return a->start < b->start; });
    rows_.push_back({job, depth, 0, own});
    for (const Job* next : below[job]) place_chain(next, depth + 1, below, bars);
  }

  // A guessed duration is striped, in the colour of its kind.
  void add_hatches() {
    out_ += "<defs>\n";
    for (const BarKind kind : {BarKind::AtItsTime, BarKind::AfterOthers, BarKind::Running}) {
      add(out_,
          "<pattern id=\"orv-%s\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\">"
          "<rect class=\"bar soft %s\" width=\"6\" height=\"6\"/>"
          "<path class=\"line %s\" d=\"M-1 1L1 -1M0 6L6 0M5 7L7 5\" "
          "stroke-width=\"1.6\"/></pattern>\n",
          css_of(kind), css_of(kind), css_of(kind));
    }
    out_ += "</defs>\n";
  }

  void swatch(double& x, const std::string& shape, const char* label) {
    const int y = kTitleHeight + 4;
    add(out_, "<g transform=\"translate(%.1f %d)\">", x, y);
    out_ += shape;
    add(out_, "<text class=\"dim\" x=\"22\" y=\"11\">%s</text></g>\n", label);
    x += 22 + static_cast<double>(std::string_view(label).size()) * kCharWidth + 16;
  }

  // Swatches of what the picture holds, and of nothing else.
  void add_legend() {
    std::set<BarKind> kinds;
    bool guessed = false;
    bool late = false;
    for (const Bar& bar : picture_.bars) {
      kinds.insert(bar.kind);
      guessed = guessed || bar.guessed;
      late = late || is_late(bar);
    }
    double x = kMargin;
    for (const BarKind kind : kinds) {
      const KindRow& row = kKinds[static_cast<std::size_t>(kind)];
      swatch(x, std::string("<rect class=\"bar ") + row.css + "\" width=\"16\" height=\"14\"/>",
             row.legend);
    }
    if (guessed) {
      swatch(x, "<rect style=\"fill:url(#orv-time)\" width=\"16\" height=\"14\"/>",
             "striped or pale: duration guessed");
    }
    if (late) {
      swatch(x, "<line class=\"line late time\" x1=\"0\" y1=\"7\" x2=\"16\" y2=\"7\"/>", "late by");
    }
    for (const bool weekend : {false, true}) {
      const auto has = [&](const Shade& shade) { return shade.weekend == weekend; };
      if (std::none_of(shades_.begin(), shades_.end(), has)) continue;
      swatch(x,
             std::string("<rect class=\"") + (weekend ? "weekend" : "night") +
                 "\" width=\"16\" height=\"14\"/>",
             weekend ? "weekend" : "night");
    }
  }

  void add_shades() {
    const int top = kTitleHeight + kLegendHeight;
    for (const bool weekend : {true, false}) {  // nights stay visible on weekends
      for (const Shade& shade : shades_) {
        if (shade.weekend != weekend) continue;
        add(out_, "<rect class=\"%s\" x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\"/>\n",
            weekend ? "weekend" : "night", shade.x, top, shade.width, bottom_ - top);
      }
    }
  }

  // The axis above the first row, and once more above every kRowsPerAxis-th.
  void add_axes() {
    const std::vector<Tick> ticks = make_ticks(scale_);
    for (const Tick& tick : ticks) {
      add(out_, "<line class=\"%s\" x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\"/>\n",
          tick.strong ? "strong" : "grid", tick.x, kTitleHeight + kLegendHeight + kAxisHeight - 6,
          tick.x, bottom_);
    }
    for (std::size_t i = 0; i == 0 || i < rows_.size(); i += kRowsPerAxis) {
      const int y = rows_.empty() ? bottom_ : rows_[i].y;
      for (const Tick& tick : ticks) {
        // A label that would be cut at the right edge is left out, its line stays.
        const double room = static_cast<double>(tick.label.size()) * kCharWidth;
        if (tick.x + room > kMargin + kLabelWidth + kChartWidth + kMargin) continue;
        add(out_, "<text class=\"dim\" x=\"%.1f\" y=\"%d\">%s</text>\n", tick.x + 2, y - 9,
            tick.label.c_str());
      }
      add(out_, "<line class=\"strong\" x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\"/>\n", kMargin, y,
          kMargin + kLabelWidth + kChartWidth, y);
    }
  }

  void add_row(const PictureRow& row) {
    const int indent = kIndent * std::min(row.depth, kMaxDepth);
    if (row.depth > 0) {  // an angle that leads down from the job above
      const int x = kMargin + indent - kIndent + 4;
      add(out_, "<path class=\"tree\" d=\"M%d %dV%dH%d\"/>", x, row.y - 3, row.y + kRowHeight / 2,
          x + 8);
    }
    // A long name is cut to its column; the whole one is shown when the pointer rests on it.
    const auto most = static_cast<std::size_t>((kLabelWidth - indent - 8) / kCharWidth);
    const std::string name = printable(row.job->name.view());
    const std::string label = shortened(name, most);
    add(out_, "<text x=\"%d\" y=\"%d\">", kMargin + indent, row.y + 15);
    out_ += escape_markup(label);
    if (label != name) out_ += "<title>" + escape_markup(name) + "</title>";
    out_ += "</text>\n";
    add(out_, "<line class=\"grid\" x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\"/>\n", kMargin,
        row.y + kRowHeight, kMargin + kLabelWidth + kChartWidth, row.y + kRowHeight);
    add_bars(row);
  }

  // Bars that would touch are drawn as one: a job that runs every minute is a band.
  void add_bars(const PictureRow& row) {
    // `end` is in units of the picture: what nobody can see apart is one bar.
    for (std::size_t i = 0; i < row.bars.size();) {
      const Bar& first = *row.bars[i];
      double end = std::max(scale_.x(first.end), scale_.x(first.start) + kShortestBar);
      std::size_t next = i + 1;
      for (; next < row.bars.size(); ++next) {
        const Bar& bar = *row.bars[next];
        if (bar.kind != first.kind || bar.guessed != first.guessed) break;
        if (scale_.x(bar.start) > end + kMerge) break;
        end = std::max(end, scale_.x(bar.end));
      }
      add_late(first, row.y);
      add_bar(row, i, next, end);
      i = next;
    }
  }

  [[nodiscard]] bool is_late(const Bar& bar) const {
    return bar.late_s > 0 && scale_.x(bar.start) - scale_.x(bar.start - bar.late_s) >= 1;
  }

  void add_late(const Bar& bar, int y) {
    if (!is_late(bar)) return;
    const double middle = y + kRowHeight / 2.0;
    add(out_, "<line class=\"line late %s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>",
        css_of(bar.kind), scale_.x(bar.start - bar.late_s), middle, scale_.x(bar.start), middle);
  }

  // The bars `from` to before `to` of the row, as one that ends at `end`.
  void add_bar(const PictureRow& row, std::size_t from, std::size_t to, double end) {
    const Bar& bar = *row.bars[from];
    const double x = scale_.x(bar.start);
    const bool striped = bar.guessed && end - x >= kStripes;
    add(out_, "<rect class=\"bar%s %s\" x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\"",
        bar.guessed && !striped ? " pale" : "", css_of(bar.kind), x, row.y + kBarInset, end - x,
        kRowHeight - 2 * kBarInset);
    if (striped) add(out_, " style=\"fill:url(#orv-%s)\"", css_of(bar.kind));
    out_ += "><title>" + escape_markup(row.job->name.view()) + ": ";
    if (to - from > 1) {
      out_ += std::to_string(to - from) + " runs, " + clock_.text(bar.start) + " to " +
              clock_.text(row.bars[to - 1]->end);
    } else {
      out_ += clock_.text(bar.start) + ", " + (bar.guessed ? "perhaps " : "") +
              duration_text(bar.end - bar.start);
      if (bar.late_s > 0) out_ += ", late by " + duration_text(bar.late_s);
    }
    out_ += "</title></rect>\n";
  }

  void add_now() {
    if (picture_.now < scale_.from || picture_.now > scale_.to) return;
    const double x = scale_.x(picture_.now);
    const int top = kTitleHeight + kLegendHeight + 2;
    // At the right edge the word stands to the left of its line.
    const bool left = x + 30 > kMargin + kLabelWidth + kChartWidth;
    add(out_, "<line class=\"now\" x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\"/>", x, top - 2, x,
        bottom_);
    add(out_, "<text class=\"nowtext\" x=\"%.1f\" y=\"%d\"%s>now</text>\n", x + (left ? -4 : 4),
        top + 2, left ? " text-anchor=\"end\"" : "");
  }

  const Config& config_;
  const Picture& picture_;
  TimeScale scale_;
  std::vector<Shade> shades_ = make_shades(scale_);
  std::vector<PictureRow> rows_;
  int bottom_ = 0;
  LocalClock clock_;
  std::string out_;
};

BarKind kind_of(PastOutcome outcome) {
  if (run_failed(outcome)) return BarKind::Failed;
  if (outcome == PastOutcome::Running) return BarKind::Running;
  return outcome == PastOutcome::Busy ? BarKind::Busy : BarKind::Done;
}

BarKind kind_of(StartReason reason) {
  if (reason == StartReason::Running) return BarKind::Running;
  return reason == StartReason::After ? BarKind::AfterOthers : BarKind::AtItsTime;
}

}  // namespace

void add_history(Picture& picture, const History& history) {
  for (const HistoryRun& row : history.runs) {
    const bool running = row.run.outcome == PastOutcome::Running;
    // A lost run has no end: a short bar marks its start.
    const std::int64_t end = running ? picture.now : row.run.end.value_or(row.run.start);
    picture.bars.push_back(
        {row.job, row.run.start, end, row.run.late_s.value_or(0), kind_of(row.run.outcome), false});
  }
}

void add_forecast(Picture& picture, const Forecast& forecast) {
  // The forecast knows until when the running jobs will go on.
  std::erase_if(picture.bars, [](const Bar& bar) { return bar.kind == BarKind::Running; });
  for (const PlannedRun& run : forecast.runs) {
    picture.bars.push_back(
        {run.job, run.start, run.end, run.late_s, kind_of(run.reason), run.guessed});
  }
}

std::string picture_svg(const Config& config, const Picture& picture) {
  return Drawing(config, picture).document();
}

std::string escape_markup(std::string_view text) {
  std::string out;
  for (const char c : printable(text)) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace orv
