#include "records.h"

namespace ktcli {

const char* DecisionWord(const GainRecord& gain) {
  if (gain.decision) return kt::ToString(gain.decision->outcome);
  return gain.volume ? "-" : "median";
}

}  // namespace ktcli
