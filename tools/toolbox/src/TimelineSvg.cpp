#include "TimelineSvg.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <sstream>
#include <system_error>
#include <vector>

#include "SafeText.h"

namespace veranda::reachabilityCache::tools {
namespace {

constexpr double PLOT_WIDTH = 900;
constexpr double ROW_HEIGHT = 16;
constexpr double BAR_HEIGHT = 11;
constexpr double BAND_HEIGHT = 150;
constexpr double TOP = 84;
constexpr double BOTTOM = 56;
constexpr double RIGHT = 24;
constexpr double CHAR_WIDTH = 6.4;  // of the 11 px label font
constexpr std::size_t LABEL_CHARS = 30;
constexpr int BAND_BINS = 300;
// Closer dashed lines merge into a striped grey, so cycles nearer than this to
// the last one drawn are left out.
constexpr double MIN_CYCLE_GAP = 4;

const char* const REACHABLE_COLOUR = "#1f77b4";
const char* const UNREACHABLE_COLOUR = "#ff7f0e";
const char* const ABSENT_COLOUR = "#e6e6e6";
// Unknown answers are hatched; the pattern is defined only where used.
const char* const UNKNOWN_COLOUR = "#a8a8a8";  // the stripes of its hatch
const char* const UNKNOWN_FILL = "url(#unknown)";
const char* const UNKNOWN_PATTERN =
    "<defs><pattern id=\"unknown\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
    "patternTransform=\"rotate(45)\"><rect width=\"6\" height=\"6\" fill=\"#f7f7f7\"/>"
    "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#a8a8a8\" stroke-width=\"2\"/>"
    "</pattern></defs>\n";

std::string num(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", value);
  return text;
}

std::string tickLabel(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", seconds);
  return text;
}

std::string label(const std::string& text) { return shortened(text, LABEL_CHARS); }

// The fill of a span: a hatch for unknown, else the answer's colour.
const char* fill(Answer answer) {
  return answer == Answer::UNKNOWN ? UNKNOWN_FILL : answerColour(answer);
}

// The answer of `row` at `atMs`: that of the last span starting at or before it.
Answer answerAt(const TimelineRow& row, int64_t atMs) {
  Answer answer = Answer::ABSENT;
  for (const AnswerSpan& span : row.spans) {
    if (span.fromMs > atMs) {
      break;
    }
    answer = span.toMs > atMs ? span.answer : Answer::ABSENT;
  }
  return answer;
}

// A tick step (in seconds) that gives at most a dozen ticks.
double tickStep(double seconds) {
  static constexpr std::array<double, 18> STEPS = {
      0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 1800, 3600, 7200, 21600, 43200};
  for (double step : STEPS) {
    if (seconds / step <= 12) {
      return step;
    }
  }
  return 86400 * std::ceil(seconds / 86400 / 12);
}

bool hasUnknown(const TimelinePicture& picture) {
  for (const TimelineRow& row : picture.rows) {
    for (const AnswerSpan& span : row.spans) {
      if (span.answer == Answer::UNKNOWN) {
        return true;
      }
    }
  }
  return false;
}

// The rows to draw, in display order: all of them, or those with most spans.
std::vector<std::size_t> chosenRows(const TimelinePicture& picture) {
  std::vector<std::size_t> rows(picture.rows.size());
  std::iota(rows.begin(), rows.end(), 0);
  if (rows.size() <= MAX_SVG_ROWS) {
    return rows;
  }
  std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
    return picture.rows[a].spans.size() > picture.rows[b].spans.size();
  });
  rows.resize(SELECTED_SVG_ROWS);
  std::sort(rows.begin(), rows.end());
  return rows;
}

class Drawing {
 public:
  explicit Drawing(const TimelinePicture& picture)
      : picture_(picture),
        rows_(chosenRows(picture)),
        banded_(rows_.size() < picture.rows.size()),
        unknown_(hasUnknown(picture)) {
    std::size_t widest = 6;
    for (std::size_t row : rows_) {
      widest = std::max(widest, terminalWidth(label(picture.rows[row].label)));
    }
    left_ = 40 + static_cast<double>(widest) * CHAR_WIDTH;
    rowsTop_ = TOP + (banded_ ? BAND_HEIGHT + 36 : 0);
    plotBottom_ = rowsTop_ + static_cast<double>(rows_.size()) * ROW_HEIGHT;
    durationMs_ = std::max<int64_t>(picture.durationMs, 1);
  }

  std::string render() {
    const double width = left_ + PLOT_WIDTH + RIGHT;
    const double height = plotBottom_ + BOTTOM;
    svg_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(width) << "\" height=\""
         << num(height) << "\" viewBox=\"0 0 " << num(width) << ' ' << num(height)
         << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    if (unknown_) {
      svg_ << UNKNOWN_PATTERN;
    }
    heading();
    grid();
    if (banded_) {
      band();
    }
    rows();
    cycles();
    axes();
    svg_ << "</svg>\n";
    return svg_.str();
  }

 private:
  double x(int64_t atMs) const {
    const int64_t clamped = std::clamp<int64_t>(atMs, 0, durationMs_);
    return left_ + PLOT_WIDTH * static_cast<double>(clamped) / static_cast<double>(durationMs_);
  }

  double plotTop() const { return banded_ ? TOP : rowsTop_; }

  void heading() {
    svg_ << "<text x=\"" << num(left_) << "\" y=\"22\" font-size=\"15\" font-weight=\"bold\">"
         << xmlText(picture_.title) << "</text>\n";
    std::string note = picture_.note;
    if (banded_) {
      note += "; rows: the " + std::to_string(rows_.size()) +
              " entities that changed most; the band counts all " +
              std::to_string(picture_.rows.size());
    }
    svg_ << "<text x=\"" << num(left_) << "\" y=\"40\" fill=\"#444\">" << xmlText(note)
         << "</text>\n";
    legend();
  }

  void legend() {
    double at = left_;
    const std::array<std::pair<const char*, const char*>, 3> keys = {
        {{REACHABLE_COLOUR, "reachable"},
         {UNREACHABLE_COLOUR, "unreachable"},
         {ABSENT_COLOUR, "not in the cache"}}};
    for (const auto& key : keys) {
      legendKey(at, key.first, key.second);
    }
    if (unknown_) {
      legendKey(at, UNKNOWN_FILL, "unknown");
    }
    svg_ << "<rect x=\"" << num(at + 6) << "\" y=\"50\" width=\"2\" height=\"7\" fill=\"#111\"/>"
         << "<text x=\"" << num(at + 19) << "\" y=\"61\">listener notified</text>\n";
    at += 30 + 17 * CHAR_WIDTH;
    svg_ << "<line x1=\"" << num(at) << "\" y1=\"57\" x2=\"" << num(at + 14)
         << "\" y2=\"57\" stroke=\"#555\" stroke-dasharray=\"3,2\"/><text x=\"" << num(at + 19)
         << "\" y=\"61\">periodic cycle</text>\n";
  }

  void legendKey(double& at, const char* fill, const char* text) {
    svg_ << "<rect x=\"" << num(at) << "\" y=\"52\" width=\"14\" height=\"10\" fill=\"" << fill
         << "\"/><text x=\"" << num(at + 19) << "\" y=\"61\">" << text << "</text>\n";
    at += 30 + static_cast<double>(std::strlen(text)) * CHAR_WIDTH;
  }

  void grid() {
    const double seconds = static_cast<double>(durationMs_) / 1000;
    const double step = tickStep(seconds);
    for (int i = 0; static_cast<double>(i) * step <= seconds + 1e-9; ++i) {
      const int64_t atMs = std::llround(static_cast<double>(i) * step * 1000);
      svg_ << "<line x1=\"" << num(x(atMs)) << "\" y1=\"" << num(plotTop()) << "\" x2=\""
           << num(x(atMs)) << "\" y2=\"" << num(plotBottom_ + 4)
           << "\" stroke=\"#d0d0d0\"/>\n<text x=\"" << num(x(atMs)) << "\" y=\""
           << num(plotBottom_ + 17) << "\" text-anchor=\"middle\">"
           << tickLabel(static_cast<double>(i) * step) << "</text>\n";
    }
  }

  void band() {
    const double bottom = TOP + BAND_HEIGHT;
    const auto total = static_cast<double>(picture_.rows.size());
    std::vector<double> reachable(BAND_BINS + 1);
    std::vector<double> known(BAND_BINS + 1);
    std::vector<double> cached(BAND_BINS + 1);  // unknown answers too
    for (const TimelineRow& row : picture_.rows) {
      for (int bin = 0; bin <= BAND_BINS; ++bin) {
        const Answer answer = answerAt(row, binTime(bin));
        reachable[bin] += answer == Answer::REACHABLE ? 1 : 0;
        known[bin] += answer == Answer::REACHABLE || answer == Answer::UNREACHABLE ? 1 : 0;
        cached[bin] += answer != Answer::ABSENT ? 1 : 0;
      }
    }
    const auto y = [&](double count) { return bottom - BAND_HEIGHT * count / total; };
    svg_ << "<rect x=\"" << num(left_) << "\" y=\"" << num(TOP) << "\" width=\"" << num(PLOT_WIDTH)
         << "\" height=\"" << num(BAND_HEIGHT) << "\" fill=\"" << ABSENT_COLOUR << "\"/>\n";
    if (unknown_) {
      area(cached, y, bottom, UNKNOWN_FILL);
    }
    area(known, y, bottom, UNREACHABLE_COLOUR);
    area(reachable, y, bottom, REACHABLE_COLOUR);
    for (double count : {0.0, total / 2, total}) {
      svg_ << "<text x=\"" << num(left_ - 6) << "\" y=\"" << num(y(count) + 4)
           << "\" text-anchor=\"end\">" << static_cast<long long>(count) << "</text>\n";
    }
    svg_ << "<text transform=\"translate(14," << num(TOP + BAND_HEIGHT / 2)
         << ") rotate(-90)\" text-anchor=\"middle\">entities</text>\n";
  }

  int64_t binTime(int bin) const { return durationMs_ * bin / BAND_BINS; }

  template <typename Y>
  void area(const std::vector<double>& counts, Y y, double bottom, const char* fill) {
    svg_ << "<polygon fill=\"" << fill << "\" points=\"" << num(x(0)) << ',' << num(bottom);
    for (int bin = 0; bin <= BAND_BINS; ++bin) {
      svg_ << ' ' << num(x(binTime(bin))) << ',' << num(y(counts[bin]));
    }
    svg_ << ' ' << num(x(durationMs_)) << ',' << num(bottom) << "\"/>\n";
  }

  void rows() {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const TimelineRow& row = picture_.rows[rows_[i]];
      const double top = rowsTop_ + static_cast<double>(i) * ROW_HEIGHT;
      const double barTop = top + (ROW_HEIGHT - BAR_HEIGHT) / 2;
      svg_ << "<g><title>" << xmlText(row.label) << "</title>\n<text x=\"" << num(left_ - 6)
           << "\" y=\"" << num(barTop + BAR_HEIGHT - 2) << "\" text-anchor=\"end\">"
           << xmlText(label(row.label)) << "</text>\n";
      for (const AnswerSpan& span : row.spans) {
        const double from = x(span.fromMs);
        const double width = std::max(x(span.toMs) - from, 1.0);  // short flaps stay visible
        svg_ << "<rect x=\"" << num(from) << "\" y=\"" << num(barTop) << "\" width=\"" << num(width)
             << "\" height=\"" << num(BAR_HEIGHT) << "\" fill=\"" << fill(span.answer) << "\"/>\n";
      }
      // A dark tick on the bar at each notification about the entity.
      for (int64_t atMs : row.marksMs) {
        svg_ << "<rect x=\"" << num(x(atMs) - 1) << "\" y=\"" << num(barTop - 2)
             << "\" width=\"2\" height=\"7\" fill=\"#111\"/>\n";
      }
      svg_ << "</g>\n";
    }
    if (!rows_.empty()) {
      svg_ << "<text transform=\"translate(14," << num((rowsTop_ + plotBottom_) / 2)
           << ") rotate(-90)\" text-anchor=\"middle\">entity</text>\n";
    }
  }

  void cycles() {
    double lastDrawn = -MIN_CYCLE_GAP;
    for (int64_t atMs : picture_.cycleTimesMs) {
      const double at = x(atMs);
      if (at - lastDrawn < MIN_CYCLE_GAP) {
        continue;
      }
      lastDrawn = at;
      svg_ << "<line x1=\"" << num(at) << "\" y1=\"" << num(plotTop()) << "\" x2=\"" << num(at)
           << "\" y2=\"" << num(plotBottom_) << "\" stroke=\"#555\" stroke-dasharray=\"3,2\"/>\n";
    }
  }

  void axes() {
    svg_ << "<line x1=\"" << num(left_) << "\" y1=\"" << num(plotBottom_) << "\" x2=\""
         << num(left_ + PLOT_WIDTH) << "\" y2=\"" << num(plotBottom_) << "\" stroke=\"#333\"/>\n"
         << "<text x=\"" << num(left_ + PLOT_WIDTH / 2) << "\" y=\"" << num(plotBottom_ + 40)
         << "\" text-anchor=\"middle\">" << xmlText(picture_.axisLabel) << "</text>\n";
  }

  const TimelinePicture& picture_;
  std::vector<std::size_t> rows_;
  bool banded_;
  bool unknown_;
  double left_ = 0;
  double rowsTop_ = 0;
  double plotBottom_ = 0;
  int64_t durationMs_ = 1;
  std::ostringstream svg_;
};

}  // namespace

const char* answerColour(Answer answer) {
  switch (answer) {
    case Answer::REACHABLE:
      return REACHABLE_COLOUR;
    case Answer::UNREACHABLE:
      return UNREACHABLE_COLOUR;
    case Answer::UNKNOWN:
      return UNKNOWN_COLOUR;
    case Answer::ABSENT:
      break;
  }
  return ABSENT_COLOUR;
}

std::string timelineSvg(const TimelinePicture& picture) { return Drawing(picture).render(); }

bool writeTimelineSvg(const TimelinePicture& picture, const std::string& path, std::string& error) {
  const std::string document = timelineSvg(picture);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    error = "cannot write " + path + ": " + std::generic_category().message(errno);
    return false;
  }
  const bool written = std::fwrite(document.data(), 1, document.size(), file) == document.size();
  const int writeErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    error = "cannot write " + path + ": " +
            std::generic_category().message(written ? errno : writeErrno);
    return false;
  }
  return true;
}

}  // namespace veranda::reachabilityCache::tools
