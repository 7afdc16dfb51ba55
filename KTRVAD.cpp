#include "KTRVAD.h"

#include <exception>

#include "audioanalyzer.h"
#include "hostblock.h"

kt::AudioAnalyzer* g_pAudioAnalyzer = nullptr;

namespace {

// The host's block for the analyzer, reused from call to call; freed with the analyzer.
kt::AudioData g_audioData;

// Frame results carry their samples, for a host that takes results from the exported
// g_pAudioAnalyzer itself; this interface drops them unread.
constexpr bool kSupplyFrameData = true;

}  // namespace

int KTRVAD_Init(const double dSamplingRate_p) {
  try {
    delete g_pAudioAnalyzer;
    g_pAudioAnalyzer = nullptr;
    kt::ReleaseHostBlock(g_audioData);
    g_pAudioAnalyzer = new kt::AudioAnalyzer("", dSamplingRate_p, kSupplyFrameData);
    return g_pAudioAnalyzer ? 0 : -1;
  } catch (const std::exception&) {
    return -2;
  } catch (...) {
    return -3;
  }
}

int KTRVAD_GetResult(const int iStart_p, const void* pvData_p, const unsigned int uiDataSize_p,
                     int* piResult_p, double* pdVolumePcnt_p, int* piVolumeInfo_p) {
  if (!piResult_p || !pdVolumePcnt_p || !piVolumeInfo_p) return -1;
  if (!g_pAudioAnalyzer) return -1;
  if (iStart_p && !pvData_p && uiDataSize_p) return -1;
  *piResult_p = KTRVAD_RESULT_FAILED;
  try {
    if (iStart_p) {
      *pdVolumePcnt_p = 0.0;
      *piVolumeInfo_p = 0;
      // One sample more than the block holds; an odd last byte becomes a low byte.
      kt::CopyHostBlock(g_audioData, pvData_p, uiDataSize_p);
      g_pAudioAnalyzer->Process(g_audioData);
    }
    // Frame results and the VOR markers are dropped on the way to a reportable one.
    kt::AnalyzerResultPtr result;
    while (g_pAudioAnalyzer->GetResult(result)) {
      if (result->GetType() == kt::AnalyzerResult::RT_Event) {
        const auto* event = dynamic_cast<const kt::AnalyzerEvent*>(result.get());
        if (event && event->GetTag() == kt::AnalyzerEvent::SpeechStart) {
          *piResult_p = KTRVAD_RESULT_SPEECH_START;
          return 0;
        }
        if (event && event->GetTag() == kt::AnalyzerEvent::SpeechEnd) {
          *piResult_p = KTRVAD_RESULT_SPEECH_END;
          return 0;
        }
      } else if (result->GetType() == kt::AnalyzerResult::RT_VolumeMeter) {
        const auto* meter = dynamic_cast<const kt::AnalyzerVolumeMeter*>(result.get());
        if (meter) {
          *pdVolumePcnt_p = meter->GetSNRVolumePct();
          *piVolumeInfo_p = meter->GetInfo();
          *piResult_p = KTRVAD_RESULT_VOLUME;
          return 0;
        }
      }
    }
    *piResult_p = KTRVAD_RESULT_NONE;
    return 0;
  } catch (const std::exception&) {
    return -2;  // *piResult_p still holds KTRVAD_RESULT_FAILED
  } catch (...) {
    return -3;
  }
}

int KTRVAD_Deinit(void) {
  try {
    delete g_pAudioAnalyzer;
    g_pAudioAnalyzer = nullptr;
    kt::ReleaseHostBlock(g_audioData);
    return 0;
  } catch (const std::exception&) {
    return -2;
  } catch (...) {
    return -3;
  }
}
