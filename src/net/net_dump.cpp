// The half-precision copy of a model.
#include "core/log.h"
#include "net/net.h"

namespace corvalith {

// Only a half-precision GPU slot holds weights in that form, and this build has no GPU slots.
int Net::parserModelForDump(std::shared_ptr<Model>, char const*) { return fail("model dump need GPU fp16 type"); }

}  // namespace corvalith
