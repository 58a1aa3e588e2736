#include "SvgWriter.h"

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

namespace veranda::reachabilityCache::sim {
namespace {

constexpr double kPlotWidth = 900;
constexpr double kRowHeight = 16;
constexpr double kBarHeight = 11;
constexpr double kBandHeight = 150;
constexpr double kTop = 84;
constexpr double kBottom = 56;
constexpr double kRight = 24;
constexpr double kCharWidth = 6.4;  // of the 11 px label font
constexpr std::size_t kLabelChars = 30;
constexpr int kBandBins = 300;

const char* const kReachableColour = "#1f77b4";
const char* const kUnreachableColour = "#ff7f0e";
const char* const kAbsentColour = "#e6e6e6";

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

std::string escaped(const std::string& text) {
  std::string result;
  for (char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string label(const std::string& entity) {
  return entity.size() <= kLabelChars ? entity : entity.substr(0, kLabelChars - 3) + "...";
}

const char* colour(EntityState state) {
  switch (state) {
    case EntityState::kReachable:
      return kReachableColour;
    case EntityState::kUnreachable:
      return kUnreachableColour;
    case EntityState::kAbsent:
      break;
  }
  return kAbsentColour;
}

// The state of `changes` at `atMs`.
EntityState stateAt(const std::vector<StateChange>& changes, int64_t atMs) {
  EntityState state = EntityState::kAbsent;
  for (const StateChange& change : changes) {
    if (change.atMs > atMs) {
      break;
    }
    state = change.state;
  }
  return state;
}

// A tick step (in seconds) that gives at most a dozen ticks.
double tickStep(double seconds) {
  static constexpr std::array<double, 14> kSteps = {0.1, 0.2, 0.5, 1,   2,   5,   10,
                                                    15,  30,  60,  120, 300, 600, 1800};
  for (double step : kSteps) {
    if (seconds / step <= 12) {
      return step;
    }
  }
  return 3600;
}

// The entities to draw, in scenario order: all of them, or those that changed most.
std::vector<std::size_t> chosenRows(const RunReport& report) {
  std::vector<std::size_t> rows(report.entities.size());
  std::iota(rows.begin(), rows.end(), 0);
  if (rows.size() <= kMaxSvgRows) {
    return rows;
  }
  std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
    return report.states[a].size() > report.states[b].size();
  });
  rows.resize(kSelectedSvgRows);
  std::sort(rows.begin(), rows.end());
  return rows;
}

class Drawing {
 public:
  explicit Drawing(const RunReport& report)
      : report_(report), rows_(chosenRows(report)), banded_(rows_.size() < report.entities.size()) {
    std::size_t widest = 6;
    for (std::size_t row : rows_) {
      widest = std::max(widest, label(report.entities[row]).size());
    }
    left_ = 40 + static_cast<double>(widest) * kCharWidth;
    rowsTop_ = kTop + (banded_ ? kBandHeight + 36 : 0);
    plotBottom_ = rowsTop_ + static_cast<double>(rows_.size()) * kRowHeight;
    durationMs_ = std::max<int64_t>(report.durationMs, 1);
  }

  std::string render() {
    const double width = left_ + kPlotWidth + kRight;
    const double height = plotBottom_ + kBottom;
    svg_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << num(width) << "\" height=\""
         << num(height) << "\" viewBox=\"0 0 " << num(width) << ' ' << num(height)
         << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
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
    return left_ + kPlotWidth * static_cast<double>(clamped) / static_cast<double>(durationMs_);
  }

  double plotTop() const { return banded_ ? kTop : rowsTop_; }

  void heading() {
    svg_ << "<text x=\"" << num(left_) << "\" y=\"22\" font-size=\"15\" font-weight=\"bold\">"
         << escaped("Reachability over time: " +
                    (report_.name.empty() ? std::string("scenario") : report_.name))
         << "</text>\n";
    std::string note = std::to_string(report_.entities.size()) + " entities, refresh every " +
                       std::to_string(report_.intervalSeconds) + " s, " +
                       std::to_string(report_.notifications.size()) + " notifications";
    if (banded_) {
      note += "; rows: the " + std::to_string(rows_.size()) +
              " entities that changed most; the band counts all " +
              std::to_string(report_.entities.size());
    }
    svg_ << "<text x=\"" << num(left_) << "\" y=\"40\" fill=\"#444\">" << escaped(note)
         << "</text>\n";
    legend();
  }

  void legend() {
    double at = left_;
    const std::array<std::pair<const char*, const char*>, 3> keys = {
        {{kReachableColour, "reachable"},
         {kUnreachableColour, "unreachable"},
         {kAbsentColour, "not in the cache"}}};
    for (const auto& key : keys) {
      svg_ << "<rect x=\"" << num(at) << "\" y=\"52\" width=\"14\" height=\"10\" fill=\""
           << key.first << "\"/><text x=\"" << num(at + 19) << "\" y=\"61\">" << key.second
           << "</text>\n";
      at += 30 + static_cast<double>(std::strlen(key.second)) * kCharWidth;
    }
    svg_ << "<rect x=\"" << num(at + 6) << "\" y=\"50\" width=\"2\" height=\"7\" fill=\"#111\"/>"
         << "<text x=\"" << num(at + 19) << "\" y=\"61\">listener notified</text>\n";
    at += 30 + 17 * kCharWidth;
    svg_ << "<line x1=\"" << num(at) << "\" y1=\"57\" x2=\"" << num(at + 14)
         << "\" y2=\"57\" stroke=\"#555\" stroke-dasharray=\"3,2\"/><text x=\"" << num(at + 19)
         << "\" y=\"61\">periodic cycle</text>\n";
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
    const double bottom = kTop + kBandHeight;
    const auto total = static_cast<double>(report_.entities.size());
    std::vector<double> reachable(kBandBins + 1);
    std::vector<double> known(kBandBins + 1);
    for (const auto& changes : report_.states) {
      for (int bin = 0; bin <= kBandBins; ++bin) {
        const EntityState state = stateAt(changes, binTime(bin));
        reachable[bin] += state == EntityState::kReachable ? 1 : 0;
        known[bin] += state != EntityState::kAbsent ? 1 : 0;
      }
    }
    const auto y = [&](double count) { return bottom - kBandHeight * count / total; };
    svg_ << "<rect x=\"" << num(left_) << "\" y=\"" << num(kTop) << "\" width=\"" << num(kPlotWidth)
         << "\" height=\"" << num(kBandHeight) << "\" fill=\"" << kAbsentColour << "\"/>\n";
    area(
        known, [&](double count) { return y(count); }, bottom, kUnreachableColour);
    area(
        reachable, [&](double count) { return y(count); }, bottom, kReachableColour);
    for (double count : {0.0, total / 2, total}) {
      svg_ << "<text x=\"" << num(left_ - 6) << "\" y=\"" << num(y(count) + 4)
           << "\" text-anchor=\"end\">" << static_cast<long long>(count) << "</text>\n";
    }
    svg_ << "<text transform=\"translate(14," << num(kTop + kBandHeight / 2)
         << ") rotate(-90)\" text-anchor=\"middle\">entities</text>\n";
  }

  int64_t binTime(int bin) const { return durationMs_ * bin / kBandBins; }

  template <typename Y>
  void area(const std::vector<double>& counts, Y y, double bottom, const char* fill) {
    svg_ << "<polygon fill=\"" << fill << "\" points=\"" << num(x(0)) << ',' << num(bottom);
    for (int bin = 0; bin <= kBandBins; ++bin) {
      svg_ << ' ' << num(x(binTime(bin))) << ',' << num(y(counts[bin]));
    }
    svg_ << ' ' << num(x(durationMs_)) << ',' << num(bottom) << "\"/>\n";
  }

  void rows() {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const std::size_t entity = rows_[i];
      const double top = rowsTop_ + static_cast<double>(i) * kRowHeight;
      const double barTop = top + (kRowHeight - kBarHeight) / 2;
      svg_ << "<g><title>" << escaped(report_.entities[entity]) << "</title>\n<text x=\""
           << num(left_ - 6) << "\" y=\"" << num(barTop + kBarHeight - 2)
           << "\" text-anchor=\"end\">" << escaped(label(report_.entities[entity])) << "</text>\n";
      const std::vector<StateChange>& changes = report_.states[entity];
      for (std::size_t k = 0; k < changes.size(); ++k) {
        const int64_t endMs = k + 1 < changes.size() ? changes[k + 1].atMs : durationMs_;
        const double from = x(changes[k].atMs);
        const double width = std::max(x(endMs) - from, 1.0);  // short flaps stay visible
        svg_ << "<rect x=\"" << num(from) << "\" y=\"" << num(barTop) << "\" width=\"" << num(width)
             << "\" height=\"" << num(kBarHeight) << "\" fill=\"" << colour(changes[k].state)
             << "\"/>\n";
      }
      ticks(entity, barTop);
      svg_ << "</g>\n";
    }
    if (!rows_.empty()) {
      svg_ << "<text transform=\"translate(14," << num((rowsTop_ + plotBottom_) / 2)
           << ") rotate(-90)\" text-anchor=\"middle\">entity</text>\n";
    }
  }

  // A dark tick on the bar at each notification about the entity.
  void ticks(std::size_t entity, double barTop) {
    for (const Notification& notification : report_.notifications) {
      if (notification.entityId == report_.entities[entity]) {
        svg_ << "<rect x=\"" << num(x(notification.atMs) - 1) << "\" y=\"" << num(barTop - 2)
             << "\" width=\"2\" height=\"7\" fill=\"#111\"/>\n";
      }
    }
  }

  void cycles() {
    for (int64_t atMs : report_.cycleTimesMs) {
      svg_ << "<line x1=\"" << num(x(atMs)) << "\" y1=\"" << num(plotTop()) << "\" x2=\""
           << num(x(atMs)) << "\" y2=\"" << num(plotBottom_)
           << "\" stroke=\"#555\" stroke-dasharray=\"3,2\"/>\n";
    }
  }

  void axes() {
    svg_ << "<line x1=\"" << num(left_) << "\" y1=\"" << num(plotBottom_) << "\" x2=\""
         << num(left_ + kPlotWidth) << "\" y2=\"" << num(plotBottom_) << "\" stroke=\"#333\"/>\n"
         << "<text x=\"" << num(left_ + kPlotWidth / 2) << "\" y=\"" << num(plotBottom_ + 40)
         << "\" text-anchor=\"middle\">time since the cache was created (s)</text>\n";
  }

  const RunReport& report_;
  std::vector<std::size_t> rows_;
  bool banded_;
  double left_ = 0;
  double rowsTop_ = 0;
  double plotBottom_ = 0;
  int64_t durationMs_ = 1;
  std::ostringstream svg_;
};

}  // namespace

std::string timelineSvg(const RunReport& report) { return Drawing(report).render(); }

bool writeTimelineSvg(const RunReport& report, const std::string& path, std::string& error) {
  const std::string document = timelineSvg(report);
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

}  // namespace veranda::reachabilityCache::sim
