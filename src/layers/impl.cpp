#include "layers/impl.h"

namespace corvalith {

int Impl::dumpWeight(std::ofstream*, void*, int) { return 0; }

int Impl::init(Blocks const&, Blocks const&, void*, Block*, Block*) { return 0; }

int Impl::reshape(Blocks const&, Blocks const&, void*, Block*, Block*) { return 0; }

void Impl::setImplWeightSize(int) {}

int Impl::getImplWeightSize() { return 0; }

bool Impl::getisFP16Model() { return true; }

void Impl::setisFP16Model(bool) {}

}  // namespace corvalith
