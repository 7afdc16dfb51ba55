#pragma once
// One picture of a run: waveform, frame energies with the thresholds and learnt levels,
// speech segments, volume readings with verdicts and, when given, the gain trajectory.
#include <cairo.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audioanalyzer.h"
#include "labels.h"
#include "records.h"

namespace ktcli {

struct Rgb {
  double r, g, b;
};

class PendingFile;

// What the plot keeps of a run: a few dozen bytes per frame, never the samples.
struct PlotData {
  // One decided frame, on the energy scale, with the extremes of its samples.
  struct Frame {
    float energy, startThreshold, endThreshold, noiseLevel, speechLevel;  // levels NaN until learnt
    int16_t low = 0, high = 0;
  };
  // Spans of consecutive items of a series, at most kMaxSpans: once full, neighbouring pairs
  // merge (T::Merge), so that memory follows the picture's width, not the recording's length.
  template <typename T>
  class Spans {
   public:
    static constexpr size_t kMaxSpans = 4096;
    void Add(const T& item) {
      if (!_spans.empty() && _inLast < _perSpan) {
        _spans.back() = T::Merge(_spans.back(), item);
        ++_inLast;
        return;
      }
      if (_spans.size() == kMaxSpans) {
        for (size_t i = 0; i < kMaxSpans / 2; ++i) _spans[i] = T::Merge(_spans[2 * i], _spans[2 * i + 1]);
        _spans.resize(kMaxSpans / 2);
        _perSpan *= 2;
      }
      _spans.push_back(item);
      _inLast = 1;
    }
    const std::vector<T>& Get() const { return _spans; }
    size_t GetItemsPerSpan() const { return _perSpan; }

   private:
    size_t _perSpan = 1;
    size_t _inLast = 0;
    std::vector<T> _spans;
  };
  // The frames of a window, one span each, bounded as Spans bounds them; a span keeps each
  // value's extremes.
  class FrameSpans {
   public:
    struct Span {
      Frame low, high;  // per value, the least and the greatest of the span's frames; NaN if none
      static Span Merge(const Span& a, const Span& b);
    };
    // Keeps frames firstFrame to endFrame (excluded) of those added.
    explicit FrameSpans(size_t firstFrame = 0, size_t endFrame = SIZE_MAX) : _first(firstFrame), _end(endFrame) {}
    void Add(const Frame& frame) {
      const size_t number = _next++;
      if (number >= _first && number < _end) _spans.Add({frame, frame});
    }
    const std::vector<Span>& GetSpans() const { return _spans.Get(); }
    size_t GetFirstFrame() const { return _first; }
    size_t GetFramesPerSpan() const { return _spans.GetItemsPerSpan(); }

   private:
    size_t _first;
    size_t _end;
    size_t _next = 0;  // the number of the next frame added
    Spans<Span> _spans;
  };
  // Volume readings, each covering the time since the one before: SNR volume in per cent.
  struct Volume {
    float startS, endS;
    float first, last, low, high;
    std::array<float, 4> seconds;  // under each verdict (kt::AnalyzerVolumeMeter::Info)
    static Volume Of(float startS, float endS, float snrVolumePct, kt::AnalyzerVolumeMeter::Info info);
    static Volume Merge(const Volume& a, const Volume& b);
    // The verdict that held longest.
    kt::AnalyzerVolumeMeter::Info Verdict() const;
  };
  // Gain updates from startS to endS: the gain in force before them, their extremes and the
  // last; per outcome (Nil: a step without one), the last update marked, NaN if none.
  struct Gain {
    float startS, endS;
    float before, low, high, last;
    std::array<float, 5> markS, markGain;
    static Gain Of(float timeS, float before, float gain, std::optional<kt::GainDecision::Outcome> outcome);
    static Gain Merge(const Gain& a, const Gain& b);
  };
  // Speech regions; once they outnumber Spans' bound, neighbours less than a gap apart are
  // joined, the gap doubling as needed: by then about a pixel column of the picture.
  class Segments {
   public:
    void Add(double startS, double endS);
    const std::vector<Region>& Get() const { return _regions; }

   private:
    double _joinS = -1.0;
    std::vector<Region> _regions;
  };
  std::string name;
  int rateHz = 0;
  double durationS = 0.0;
  double frameMs = 20.0;
  FrameSpans frames;
  // Volume readings and gain updates within the window; the gain in force where it starts.
  Spans<Volume> volumes;
  Spans<Gain> gains;
  // The segments within the window, and how many there were in all.
  Segments segments;
  size_t segmentCount = 0;
  bool agc = false;
  float startGain = 0.5f;
  float windowGain = 0.5f;
};

class Plot {
 public:
  // Keeps a reference to data, which must outlive the plot. Shows fromS to toS; toS <= fromS
  // shows the whole recording.
  Plot(const PlotData& data, std::vector<Region> labels, std::string params, double fromS, double toS);

  // ".svg" and ".png", by the path's extension.
  static bool IsSupportedFormat(const std::string& path);
  // Draws into the file's temporary name; the caller commits it.
  void Render(const PendingFile& file) const;

 private:
  // A horizontal band of the picture with its own value axis.
  class Panel {
   public:
    Panel(double top, double height, double low, double high)
        : _top(top), _height(height), _low(low), _high(high) {}
    double GetTop() const { return _top; }
    double GetBottom() const { return _top + _height; }
    double GetLow() const { return _low; }
    double GetHigh() const { return _high; }
    // Values outside the axis are drawn on its edge.
    double Y(double value) const;

   private:
    double _top;
    double _height;
    double _low;
    double _high;
  };

  class LegendEntry {
   public:
    enum Style { Line, Dashed, Box };
    LegendEntry(std::string text, Style style, Rgb colour)
        : _text(std::move(text)), _style(style), _colour(colour) {}
    void Draw(cairo_t* cr, double x, double y) const;

   private:
    std::string _text;
    Style _style;
    Rgb _colour;
  };

  double X(double timeS) const;
  // Whether startS to endS meets the window, and the x of a time held within the window.
  bool Shows(double startS, double endS) const { return endS >= _fromS && startS <= _toS; }
  double XWithin(double timeS) const;
  double GetHeight() const;
  void Draw(cairo_t* cr) const;
  void DrawTitle(cairo_t* cr) const;
  void DrawFrame(cairo_t* cr, const Panel& panel, const std::string& axisLabel, double tickStep) const;
  void DrawTimeAxis(cairo_t* cr, const std::vector<Panel>& panels) const;
  void ShadeSegments(cairo_t* cr, const Panel& panel) const;
  void DrawLegend(cairo_t* cr, const Panel& panel, const std::vector<LegendEntry>& entries) const;
  // Draws one panel's data, clipped to the panel, then its legend beside it.
  void DrawPanel(cairo_t* cr, const Panel& panel,
                 std::vector<LegendEntry> (Plot::*draw)(cairo_t*, const Panel&) const) const;
  std::vector<LegendEntry> DrawWaveform(cairo_t* cr, const Panel& panel) const;
  std::vector<LegendEntry> DrawEnergy(cairo_t* cr, const Panel& panel) const;
  std::vector<LegendEntry> DrawVolume(cairo_t* cr, const Panel& panel) const;
  std::vector<LegendEntry> DrawGain(cairo_t* cr, const Panel& panel) const;
  // A polyline over the frames, broken where a value is NaN.
  void DrawFrameSeries(cairo_t* cr, const Panel& panel, float PlotData::Frame::*value) const;

  const PlotData& _data;
  std::vector<Region> _labels;
  std::string _params;
  double _fromS;
  double _toS;
};

}  // namespace ktcli
