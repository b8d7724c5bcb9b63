#pragma once
// The one test-only switch: containers made with fresh parameters use cheap,
// fixed scrypt parameters instead of the measured ones. Only test mains call it.
namespace qv {
void QVCryptoUseCheapParametersForTesting(bool on);
bool QVCryptoCheapParametersForTesting();
} // namespace qv
