#include "vault/QVCryptoTesting.h"

#include <atomic>

namespace qv {
namespace {
std::atomic<bool> gCheap{false};
}
void QVCryptoUseCheapParametersForTesting(bool on) { gCheap.store(on); }
bool QVCryptoCheapParametersForTesting() { return gCheap.load(); }
} // namespace qv
