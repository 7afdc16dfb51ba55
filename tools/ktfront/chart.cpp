#include "chart.h"

#include <cairo-svg.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>

#include "audioanalyzer.h"
#include "outputfile.h"
#include "textformat.h"

namespace ktcli {
namespace {

constexpr double kWidth = 1400.0;
constexpr double kLeft = 80.0;
constexpr double kRight = 240.0;
constexpr double kTitleHeight = 60.0;
constexpr double kGap = 28.0;
constexpr double kBottom = 56.0;
constexpr double kWaveHeight = 150.0;
constexpr double kEnergyHeight = 300.0;
constexpr double kVolumeHeight = 150.0;
constexpr double kGainHeight = 150.0;
// The volume axis reaches below 0 % to make room for the band of verdicts.
constexpr double kVerdictLowPct = -16.0;
constexpr double kVerdictHighPct = -4.0;
// 20 log10(32768): the energy of a full-scale signal, the zero of dBFS.
constexpr double kFullScaleDb = 90.30899869919436;

// A small palette; each colour keeps one meaning within a panel.
constexpr Rgb kRed{0.85, 0.12, 0.12};
constexpr Rgb kOrange{0.95, 0.55, 0.05};
constexpr Rgb kBlue{0.10, 0.35, 0.85};
constexpr Rgb kPurple{0.58, 0.20, 0.70};
constexpr Rgb kTeal{0.05, 0.45, 0.35};
constexpr Rgb kDark{0.15, 0.15, 0.15};
constexpr Rgb kSpeechShade{0.84, 0.93, 0.82};
constexpr Rgb kLabelBar{0.20, 0.50, 0.22};
constexpr Rgb kWave{0.27, 0.45, 0.70};
constexpr Rgb kEnergy{0.25, 0.25, 0.25};
constexpr Rgb kGrid{0.88, 0.88, 0.88};

Rgb VerdictColour(kt::AnalyzerVolumeMeter::Info info) {
  switch (info) {
    case kt::AnalyzerVolumeMeter::TooNoisy: return kOrange;
    case kt::AnalyzerVolumeMeter::TooSoft: return kBlue;
    case kt::AnalyzerVolumeMeter::TooLoud: return kRed;
    default: return {0.72, 0.72, 0.72};
  }
}

// By the gain control's outcome; the restart at gain 0 has none.
Rgb DecisionColour(std::optional<kt::GainDecision::Outcome> outcome) {
  switch (outcome.value_or(kt::GainDecision::Nil)) {
    case kt::GainDecision::TooLow: return kBlue;
    case kt::GainDecision::TooHigh: return kRed;
    case kt::GainDecision::SpeechOnset: return kTeal;
    case kt::GainDecision::Pause: return {0.55, 0.55, 0.55};
    default: return kPurple;  // a single step up during speech
  }
}

void SetColour(cairo_t* cr, const Rgb& c) { cairo_set_source_rgb(cr, c.r, c.g, c.b); }

// 1, 2 or 5 times a power of ten, so that about `count` steps span `range`.
double NiceStep(double range, double count) {
  const double raw = range / count;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (const double m : {1.0, 2.0, 5.0}) {
    if (m * power >= raw) return m * power;
  }
  return 10.0 * power;
}

void Text(cairo_t* cr, double x, double y, const std::string& text, double alignX, double size = 12.0) {
  cairo_set_font_size(cr, size);
  cairo_text_extents_t extents;
  cairo_text_extents(cr, text.c_str(), &extents);
  cairo_move_to(cr, x - alignX * extents.x_advance, y);
  cairo_show_text(cr, text.c_str());
}

// Each value's extreme over a and b; NaN (not yet learnt) only where both are.
PlotData::Frame Extremes(const PlotData::Frame& a, const PlotData::Frame& b, bool greatest) {
  auto pick = [greatest](float x, float y) { return greatest ? std::fmax(x, y) : std::fmin(x, y); };
  return {pick(a.energy, b.energy),
          pick(a.startThreshold, b.startThreshold),
          pick(a.endThreshold, b.endThreshold),
          pick(a.noiseLevel, b.noiseLevel),
          pick(a.speechLevel, b.speechLevel),
          std::min(a.low, b.low),
          std::max(a.high, b.high)};
}

}  // namespace

PlotData::FrameSpans::Span PlotData::FrameSpans::Span::Merge(const Span& a, const Span& b) {
  return {Extremes(a.low, b.low, false), Extremes(a.high, b.high, true)};
}

PlotData::Volume PlotData::Volume::Of(float startS, float endS, float snrVolumePct, kt::AnalyzerVolumeMeter::Info info) {
  Volume volume{startS, endS, snrVolumePct, snrVolumePct, snrVolumePct, snrVolumePct, {0, 0, 0, 0}};
  volume.seconds.at(info) = endS - startS;
  return volume;
}

PlotData::Volume PlotData::Volume::Merge(const Volume& a, const Volume& b) {
  Volume merged{a.startS, b.endS, a.first, b.last, std::min(a.low, b.low), std::max(a.high, b.high), a.seconds};
  for (size_t i = 0; i < merged.seconds.size(); ++i) merged.seconds[i] += b.seconds[i];
  return merged;
}

kt::AnalyzerVolumeMeter::Info PlotData::Volume::Verdict() const {
  // A single reading's own verdict, however short its time.
  if (startS == endS && first == last) {
    for (size_t i = 0; i < seconds.size(); ++i) {
      if (seconds[i] > 0) return static_cast<kt::AnalyzerVolumeMeter::Info>(i);
    }
  }
  return static_cast<kt::AnalyzerVolumeMeter::Info>(std::max_element(seconds.begin(), seconds.end()) - seconds.begin());
}

PlotData::Gain PlotData::Gain::Of(float timeS, float before, float gain, std::optional<kt::GainDecision::Outcome> outcome) {
  Gain update{timeS, timeS, before, gain, gain, gain, {}, {}};
  update.markS.fill(NAN);
  update.markGain.fill(NAN);
  // An update that only waited is not marked.
  const kt::GainDecision::Outcome kind = outcome.value_or(kt::GainDecision::Nil);
  if (kind != kt::GainDecision::Nil || gain != before) {
    update.markS.at(kind) = timeS;
    update.markGain.at(kind) = gain;
  }
  return update;
}

PlotData::Gain PlotData::Gain::Merge(const Gain& a, const Gain& b) {
  Gain merged{a.startS, b.endS, a.before, std::min(a.low, b.low), std::max(a.high, b.high), b.last, a.markS, a.markGain};
  for (size_t i = 0; i < merged.markS.size(); ++i) {
    if (!std::isnan(b.markS[i])) merged.markS[i] = b.markS[i], merged.markGain[i] = b.markGain[i];
  }
  return merged;
}

void PlotData::Segments::Add(double startS, double endS) {
  if (!_regions.empty() && startS - _regions.back().endS <= _joinS) {
    _regions.back().endS = std::max(_regions.back().endS, endS);
    return;
  }
  _regions.push_back({startS, endS});
  if (_regions.size() < Spans<Volume>::kMaxSpans) return;
  while (_regions.size() > Spans<Volume>::kMaxSpans / 2) {
    _joinS = _joinS < 0 ? 0.01 : 2 * _joinS;
    std::vector<Region> joined;
    for (const Region& region : _regions) {
      if (!joined.empty() && region.startS - joined.back().endS <= _joinS) {
        joined.back().endS = std::max(joined.back().endS, region.endS);
      } else {
        joined.push_back(region);
      }
    }
    _regions = std::move(joined);
  }
}

double Plot::Panel::Y(double value) const {
  const double clamped = std::clamp(value, _low, _high);
  return GetBottom() - (clamped - _low) / (_high - _low) * _height;
}

void Plot::LegendEntry::Draw(cairo_t* cr, double x, double y) const {
  SetColour(cr, _colour);
  if (_style == Box) {
    cairo_rectangle(cr, x, y - 9, 22, 10);
    cairo_fill(cr);
  } else {
    if (_style == Dashed) {
      const double dashes[] = {6.0, 3.0};
      cairo_set_dash(cr, dashes, 2, 0);
    }
    cairo_set_line_width(cr, 2.0);
    cairo_move_to(cr, x, y - 4);
    cairo_line_to(cr, x + 22, y - 4);
    cairo_stroke(cr);
    cairo_set_dash(cr, nullptr, 0, 0);
  }
  SetColour(cr, kDark);
  Text(cr, x + 30, y, _text, 0.0);
}

Plot::Plot(const PlotData& data, std::vector<Region> labels, std::string params, double fromS, double toS)
    : _data(data),
      _labels(std::move(labels)),
      _params(std::move(params)),
      _fromS(toS > fromS ? fromS : 0.0),
      _toS(toS > fromS ? toS : std::max(data.durationS, 1e-3)) {}

bool Plot::IsSupportedFormat(const std::string& path) {
  auto endsWith = [&path](const std::string& suffix) {
    return path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  return endsWith(".svg") || endsWith(".png");
}

double Plot::X(double timeS) const {
  return kLeft + (timeS - _fromS) / (_toS - _fromS) * (kWidth - kLeft - kRight);
}

double Plot::XWithin(double timeS) const { return X(std::clamp(timeS, _fromS, _toS)); }

double Plot::GetHeight() const {
  return kTitleHeight + kWaveHeight + kGap + kEnergyHeight + kGap + kVolumeHeight +
         (_data.agc ? kGap + kGainHeight : 0.0) + kBottom;
}

void Plot::Render(const PendingFile& file) const {
  const std::string& path = file.GetPath();
  const bool svg = path.compare(path.size() - 4, 4, ".svg") == 0;
  cairo_surface_t* surface =
      svg ? cairo_svg_surface_create(file.GetTemporaryPath().c_str(), kWidth, GetHeight())
          : cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(kWidth),
                                       static_cast<int>(GetHeight()));
  cairo_t* cr = cairo_create(surface);
  Draw(cr);
  cairo_destroy(cr);
  cairo_status_t status = svg ? CAIRO_STATUS_SUCCESS
                              : cairo_surface_write_to_png(surface, file.GetTemporaryPath().c_str());
  cairo_surface_finish(surface);
  if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_status(surface);
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) {
    throw std::runtime_error("cannot write " + path + ": " + cairo_status_to_string(status));
  }
}

void Plot::Draw(cairo_t* cr) const {
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_paint(cr);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  DrawTitle(cr);

  // Energies, thresholds and levels share one dB axis, cut to what the recording uses.
  double lowDb = kFullScaleDb;
  for (const auto& span : _data.frames.GetSpans()) lowDb = std::min(lowDb, static_cast<double>(span.low.energy));
  lowDb = std::max(0.0, std::floor((lowDb - 5.0) / 10.0) * 10.0);

  double top = kTitleHeight;
  std::vector<Panel> panels;
  panels.emplace_back(top, kWaveHeight, -1.0, 1.0);
  top += kWaveHeight + kGap;
  panels.emplace_back(top, kEnergyHeight, lowDb, 100.0);
  top += kEnergyHeight + kGap;
  // A little headroom, so that lines at 100 % and gain 1 are not cut by the clip.
  panels.emplace_back(top, kVolumeHeight, kVerdictLowPct, 104.0);
  top += kVolumeHeight + kGap;
  if (_data.agc) panels.emplace_back(top, kGainHeight, 0.0, 1.04);

  DrawFrame(cr, panels[0], "amplitude", 0.5);
  DrawFrame(cr, panels[1], "energy (dB)", 10.0);
  DrawFrame(cr, panels[2], "SNR volume (%)", 25.0);
  if (_data.agc) DrawFrame(cr, panels[3], "gain", 0.25);
  DrawTimeAxis(cr, panels);
  DrawPanel(cr, panels[0], &Plot::DrawWaveform);
  DrawPanel(cr, panels[1], &Plot::DrawEnergy);
  DrawPanel(cr, panels[2], &Plot::DrawVolume);
  if (_data.agc) DrawPanel(cr, panels[3], &Plot::DrawGain);
}

void Plot::DrawPanel(cairo_t* cr, const Panel& panel,
                     std::vector<LegendEntry> (Plot::*draw)(cairo_t*, const Panel&) const) const {
  cairo_save(cr);
  cairo_rectangle(cr, kLeft, panel.GetTop(), kWidth - kRight - kLeft, panel.GetBottom() - panel.GetTop());
  cairo_clip(cr);
  const std::vector<LegendEntry> legend = (this->*draw)(cr, panel);
  cairo_restore(cr);
  DrawLegend(cr, panel, legend);
}

void Plot::DrawTitle(cairo_t* cr) const {
  const size_t count = _data.segmentCount;
  std::string title = _data.name + "   " + std::to_string(_data.rateHz) + " Hz, " +
                      Fixed(_data.durationS, 2) + " s, " + std::to_string(count) +
                      (count == 1 ? " speech segment" : " speech segments");
  SetColour(cr, kDark);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  Text(cr, kLeft, 26, title, 0.0, 16.0);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  std::string subtitle = "analyzer parameters: " + (_params.empty() ? std::string("defaults") : _params);
  if (_data.agc) subtitle += "      gain control from gain " + Fixed(_data.startGain, 2);
  if (_fromS > 0.0 || _toS < _data.durationS) {
    subtitle += "      showing " + Fixed(_fromS, 2) + " to " + Fixed(_toS, 2) + " s";
  }
  Text(cr, kLeft, 46, subtitle, 0.0);
}

void Plot::DrawFrame(cairo_t* cr, const Panel& panel, const std::string& axisLabel,
                     double tickStep) const {
  const double right = kWidth - kRight;
  cairo_save(cr);
  cairo_rectangle(cr, kLeft, panel.GetTop(), right - kLeft, panel.GetBottom() - panel.GetTop());
  cairo_clip(cr);
  ShadeSegments(cr, panel);
  cairo_restore(cr);
  cairo_set_line_width(cr, 1.0);
  for (double v = std::ceil(panel.GetLow() / tickStep) * tickStep; v <= panel.GetHigh() + 1e-9;
       v += tickStep) {
    SetColour(cr, kGrid);
    cairo_move_to(cr, kLeft, std::round(panel.Y(v)) + 0.5);
    cairo_line_to(cr, right, std::round(panel.Y(v)) + 0.5);
    cairo_stroke(cr);
    SetColour(cr, kDark);
    Text(cr, kLeft - 6, panel.Y(v) + 4, Fixed(v + 0.0, tickStep < 1.0 ? 2 : 0), 1.0, 11.0);
  }
  cairo_save(cr);
  cairo_translate(cr, 22, (panel.GetTop() + panel.GetBottom()) / 2);
  cairo_rotate(cr, -M_PI / 2);
  Text(cr, 0, 0, axisLabel, 0.5);
  cairo_restore(cr);
  SetColour(cr, {0.5, 0.5, 0.5});
  cairo_rectangle(cr, kLeft + 0.5, panel.GetTop() + 0.5, right - kLeft, panel.GetBottom() - panel.GetTop());
  cairo_stroke(cr);
}

void Plot::DrawTimeAxis(cairo_t* cr, const std::vector<Panel>& panels) const {
  const double step = NiceStep(_toS - _fromS, 12.0);
  const double bottom = panels.back().GetBottom();
  cairo_set_line_width(cr, 1.0);
  for (double t = std::ceil(_fromS / step) * step; t <= _toS + 1e-9; t += step) {
    const double x = std::round(X(t)) + 0.5;
    SetColour(cr, {0.80, 0.80, 0.80});
    for (const Panel& panel : panels) {
      cairo_move_to(cr, x, panel.GetTop());
      cairo_line_to(cr, x, panel.GetBottom());
    }
    cairo_stroke(cr);
    SetColour(cr, kDark);
    Text(cr, x, bottom + 16, Fixed(t, step < 0.1 ? 2 : (step < 1.0 ? 1 : 0)), 0.5, 11.0);
  }
  Text(cr, (kLeft + kWidth - kRight) / 2, bottom + 38, "time (s)", 0.5);
}

void Plot::ShadeSegments(cairo_t* cr, const Panel& panel) const {
  SetColour(cr, kSpeechShade);
  // Segments less than a pixel apart are shaded as one.
  double left = 0.0, right = -2.0;
  auto shade = [&]() {
    if (right > left) cairo_rectangle(cr, left, panel.GetTop(), right - left, panel.GetBottom() - panel.GetTop());
  };
  for (const Region& segment : _data.segments.Get()) {
    if (!Shows(segment.startS, segment.endS)) continue;
    if (XWithin(segment.startS) - right >= 1.0) {
      shade();
      left = XWithin(segment.startS);
    }
    right = XWithin(segment.endS);
  }
  shade();
  cairo_fill(cr);
}

void Plot::DrawLegend(cairo_t* cr, const Panel& panel, const std::vector<LegendEntry>& entries) const {
  double y = panel.GetTop() + 14;
  for (const LegendEntry& entry : entries) {
    entry.Draw(cr, kWidth - kRight + 16, y);
    y += 19;
  }
}

std::vector<Plot::LegendEntry> Plot::DrawWaveform(cairo_t* cr, const Panel& panel) const {
  // Per pixel column, the extremes of the spans it touches: the envelope.
  const std::vector<PlotData::FrameSpans::Span>& spans = _data.frames.GetSpans();
  const int columns = static_cast<int>(kWidth - kLeft - kRight);
  const double spanS = _data.frames.GetFramesPerSpan() * _data.frameMs / 1000.0;
  const double firstS = _data.frames.GetFirstFrame() * _data.frameMs / 1000.0;
  std::vector<double> highs, lows;
  for (int c = 0; c < columns; ++c) {
    const double fromS = _fromS + (_toS - _fromS) * c / columns - firstS;
    const double toS = _fromS + (_toS - _fromS) * (c + 1) / columns - firstS;
    const size_t first = std::min(spans.size(), static_cast<size_t>(std::max(0.0, fromS / spanS)));
    const size_t last =
        std::min(spans.size(), std::max(first + 1, static_cast<size_t>(std::max(0.0, std::ceil(toS / spanS)))));
    int16_t high = 0;
    int16_t low = 0;
    for (size_t i = first; i < last; ++i) {
      high = std::max(high, spans[i].high.high);
      low = std::min(low, spans[i].low.low);
    }
    highs.push_back(high / 32768.0);
    lows.push_back(low / 32768.0);
  }
  SetColour(cr, kWave);
  cairo_move_to(cr, kLeft, panel.Y(highs[0]));
  for (int c = 0; c < columns; ++c) cairo_line_to(cr, kLeft + c + 0.5, panel.Y(highs[c]));
  for (int c = columns - 1; c >= 0; --c) cairo_line_to(cr, kLeft + c + 0.5, panel.Y(lows[c]) + 0.5);
  cairo_close_path(cr);
  cairo_fill(cr);

  std::vector<LegendEntry> legend{{"waveform", LegendEntry::Box, kWave},
                                  {"detected speech", LegendEntry::Box, kSpeechShade}};
  if (!_labels.empty()) {
    SetColour(cr, kLabelBar);
    for (const Region& label : _labels) {
      if (!Shows(label.startS, label.endS)) continue;
      cairo_rectangle(cr, XWithin(label.startS), panel.GetTop() + 3, XWithin(label.endS) - XWithin(label.startS), 6);
    }
    cairo_fill(cr);
    legend.emplace_back("reference labels", LegendEntry::Box, kLabelBar);
  }
  return legend;
}

void Plot::DrawFrameSeries(cairo_t* cr, const Panel& panel, float PlotData::Frame::*value) const {
  const std::vector<PlotData::FrameSpans::Span>& spans = _data.frames.GetSpans();
  const double spanS = _data.frames.GetFramesPerSpan() * _data.frameMs / 1000.0;
  const double firstS = _data.frames.GetFirstFrame() * _data.frameMs / 1000.0;
  bool drawing = false;
  // The spans the window touches, and one on either side so that the lines reach its edges.
  const size_t first = static_cast<size_t>(std::max(0.0, std::floor((_fromS - firstS) / spanS) - 1));
  const size_t end = std::min(spans.size(), static_cast<size_t>(std::max(0.0, std::ceil((_toS - firstS) / spanS) + 1)));
  for (size_t i = first; i < end; ++i) {
    const double low = spans[i].low.*value;
    const double high = spans[i].high.*value;
    if (std::isnan(low)) {
      drawing = false;
      continue;
    }
    const double startX = X(firstS + i * spanS);
    const double endX = X(firstS + (i + 1) * spanS);
    if (drawing) {
      cairo_line_to(cr, startX, panel.Y(low));
    } else {
      cairo_move_to(cr, startX, panel.Y(low));
      drawing = true;
    }
    // A frame is a step; a wider span a stroke from its least to its greatest value.
    cairo_line_to(cr, high == low ? endX : startX, panel.Y(high));
    if (high != low) cairo_line_to(cr, endX, panel.Y(high));
  }
  cairo_stroke(cr);
}

std::vector<Plot::LegendEntry> Plot::DrawEnergy(cairo_t* cr, const Panel& panel) const {
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_BEVEL);
  cairo_set_line_width(cr, 1.0);
  SetColour(cr, kEnergy);
  DrawFrameSeries(cr, panel, &PlotData::Frame::energy);
  cairo_set_line_width(cr, 2.0);
  SetColour(cr, kBlue);
  DrawFrameSeries(cr, panel, &PlotData::Frame::noiseLevel);
  SetColour(cr, kPurple);
  DrawFrameSeries(cr, panel, &PlotData::Frame::speechLevel);
  const double dashes[] = {7.0, 4.0};
  cairo_set_dash(cr, dashes, 2, 0);
  SetColour(cr, kRed);
  DrawFrameSeries(cr, panel, &PlotData::Frame::startThreshold);
  SetColour(cr, kOrange);
  DrawFrameSeries(cr, panel, &PlotData::Frame::endThreshold);
  cairo_set_dash(cr, nullptr, 0, 0);

  // Full scale, so that the energy scale reads against dBFS.
  SetColour(cr, {0.5, 0.5, 0.5});
  Text(cr, kLeft + 6, panel.Y(kFullScaleDb) - 4, "0 dBFS", 0.0, 10.0);
  return {{"frame energy", LegendEntry::Line, kEnergy},
              {"speech-start threshold", LegendEntry::Dashed, kRed},
              {"speech-end threshold", LegendEntry::Dashed, kOrange},
              {"speech level", LegendEntry::Line, kPurple},
              {"noise level", LegendEntry::Line, kBlue}};
}

std::vector<Plot::LegendEntry> Plot::DrawVolume(cairo_t* cr, const Panel& panel) const {
  // A band of verdicts along the bottom, merged where the verdict stays (a span shows the one
  // that held longest in it), and the per-cent curve above it.
  const std::vector<PlotData::Volume>& spans = _data.volumes.Get();
  for (size_t i = 0, band = 0; i < spans.size(); ++i) {
    if (i + 1 < spans.size() && spans[i + 1].Verdict() == spans[i].Verdict()) continue;
    if (Shows(spans[band].startS, spans[i].endS)) {
      SetColour(cr, VerdictColour(spans[i].Verdict()));
      cairo_rectangle(cr, XWithin(spans[band].startS), panel.Y(kVerdictHighPct),
                      XWithin(spans[i].endS) - XWithin(spans[band].startS),
                      panel.Y(kVerdictLowPct) - panel.Y(kVerdictHighPct));
      cairo_fill(cr);
    }
    band = i + 1;
  }
  bool drawing = false;
  double column = 0.0, lowY = 0.0, highY = 0.0, lastY = 0.0;
  cairo_set_line_width(cr, 2.0);
  SetColour(cr, kTeal);
  // Negative readings (decaying maximum below the noise floor) are drawn at 0 %.
  auto y = [&](float pct) { return panel.Y(std::max(0.0f, pct)); };
  for (const PlotData::Volume& span : spans) {
    if (!Shows(span.startS, span.endS)) continue;
    const double startX = XWithin(span.startS);
    const double endX = XWithin(span.endS);
    // Readings within one pixel column are drawn as one stroke over their extremes.
    if (drawing && std::floor(startX) == column && std::floor(endX) == column) {
      lowY = std::max(lowY, y(span.low));
      highY = std::min(highY, y(span.high));
      lastY = y(span.last);
      continue;
    }
    if (!drawing) cairo_move_to(cr, startX, y(span.first));
    if (drawing && lowY != highY) {
      cairo_line_to(cr, column + 0.5, lowY);
      cairo_line_to(cr, column + 0.5, highY);
      cairo_line_to(cr, column + 0.5, lastY);
    }
    drawing = true;
    cairo_line_to(cr, startX, y(span.first));
    cairo_line_to(cr, endX, y(span.last));
    column = std::floor(endX);
    lowY = y(span.low);
    highY = y(span.high);
    lastY = y(span.last);
  }
  if (drawing && lowY != highY) {
    cairo_line_to(cr, column + 0.5, lowY);
    cairo_line_to(cr, column + 0.5, highY);
    cairo_line_to(cr, column + 0.5, lastY);
  }
  cairo_stroke(cr);
  return {{"SNR volume", LegendEntry::Line, kTeal},
              {"verdict OK", LegendEntry::Box, VerdictColour(kt::AnalyzerVolumeMeter::OK)},
              {"too noisy", LegendEntry::Box, VerdictColour(kt::AnalyzerVolumeMeter::TooNoisy)},
              {"too soft", LegendEntry::Box, VerdictColour(kt::AnalyzerVolumeMeter::TooSoft)},
              {"too loud", LegendEntry::Box, VerdictColour(kt::AnalyzerVolumeMeter::TooLoud)}};
}

std::vector<Plot::LegendEntry> Plot::DrawGain(cairo_t* cr, const Panel& panel) const {
  const std::vector<PlotData::Gain>& spans = _data.gains.Get();
  double gain = _data.windowGain;
  cairo_set_line_width(cr, 2.0);
  SetColour(cr, kDark);
  cairo_move_to(cr, X(_fromS), panel.Y(gain));
  for (const PlotData::Gain& span : spans) {
    cairo_line_to(cr, X(span.startS), panel.Y(span.before));
    // Several updates within a span: a stroke over their extremes.
    if (span.low != span.high) {
      cairo_line_to(cr, X(span.startS), panel.Y(span.low));
      cairo_line_to(cr, X(span.startS), panel.Y(span.high));
    }
    cairo_line_to(cr, X(span.startS), panel.Y(span.last));
    if (span.endS != span.startS) cairo_line_to(cr, X(span.endS), panel.Y(span.last));
    gain = span.last;
  }
  cairo_line_to(cr, X(_toS), panel.Y(gain));
  cairo_stroke(cr);
  // Mark the updates that did more than wait, once per kind and pixel.
  std::array<std::pair<double, double>, 5> drawn;
  drawn.fill({NAN, NAN});
  for (const PlotData::Gain& span : spans) {
    for (size_t kind = 0; kind < span.markS.size(); ++kind) {
      if (std::isnan(span.markS[kind]) || !Shows(span.markS[kind], span.markS[kind])) continue;
      const std::pair<double, double> pixel{std::floor(X(span.markS[kind])), std::floor(panel.Y(span.markGain[kind]))};
      if (pixel == drawn[kind]) continue;
      drawn[kind] = pixel;
      SetColour(cr, DecisionColour(static_cast<kt::GainDecision::Outcome>(kind)));
      cairo_arc(cr, X(span.markS[kind]), panel.Y(span.markGain[kind]), 4.0, 0, 2 * M_PI);
      cairo_fill(cr);
    }
  }
  return {{"gain (closed loop)", LegendEntry::Line, kDark},
              {"too low: jump up", LegendEntry::Box, DecisionColour(kt::GainDecision::TooLow)},
              {"too high: jump down", LegendEntry::Box, DecisionColour(kt::GainDecision::TooHigh)},
              {"speech onset", LegendEntry::Box, DecisionColour(kt::GainDecision::SpeechOnset)},
              {"pause", LegendEntry::Box, DecisionColour(kt::GainDecision::Pause)},
              {"step up in speech", LegendEntry::Box, DecisionColour(kt::GainDecision::Nil)}};
}

}  // namespace ktcli
