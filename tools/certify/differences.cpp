#include "certify/differences.h"

namespace tessel::certify {

void find_differences(const Judgment& /*judgment*/, const Endpoints& /*feed*/, CaseResult& /*result*/) {}

}  // namespace tessel::certify
