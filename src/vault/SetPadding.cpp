#include "vault/SetPadding.h"

#include "vault/KeyedArchive.h"
#include "vault/QVCrypto.h"

namespace qv {

namespace {

size_t roundUp(size_t n) { return (n + QVSetArchiveBucket - 1) / QVSetArchiveBucket * QVSetArchiveBucket; }

std::optional<Bytes> archiveWithPadding(const Dict& set, size_t padding, QVError* error) {
    auto padded = std::make_shared<Dict>(set);
    (*padded)[QVSDBPaddingKey] = Value(QVCrypto::randomDataOfLength(padding, 0, 255));
    return archivedDataWithRootObject(Value(padded), error);
}

} // namespace

std::optional<Bytes> QVArchivePaddedSet(const DictRef& set, QVError* error) {
    if (!set) return archivedDataWithRootObject(Value(set), error);
    Dict plain(*set);
    plain.erase(DictKey(QVSDBPaddingKey));
    // The length grows with the padding one byte for one, apart from a few
    // steps where a length or offset field of the property list gets wider;
    // when such a step jumps over the bucket's edge, the next bucket is taken.
    auto empty = archiveWithPadding(plain, 0, error);
    if (!empty) return std::nullopt;
    size_t target = roundUp(empty->size() + 1);
    for (int bucketTries = 0; bucketTries < 4; ++bucketTries, target += QVSetArchiveBucket) {
        size_t padding = target - empty->size();
        for (int attempt = 0; attempt < 8; ++attempt) {
            auto archive = archiveWithPadding(plain, padding, error);
            if (!archive) return std::nullopt;
            if (archive->size() == target) return archive;
            if (archive->size() > target && archive->size() - target > padding) break;
            padding = padding + target - archive->size();
        }
    }
    // Never reached for a bucket of this size; an unpadded archive still reads.
    return empty;
}

void QVDropSetPadding(Dict& set) { set.erase(DictKey(QVSDBPaddingKey)); }

} // namespace qv
