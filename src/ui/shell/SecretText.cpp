#include "ui/shell/SecretText.h"

#include <openssl/crypto.h>

namespace qv::ui {

SecretText::SecretText(const QString& text) {
    QByteArray utf8 = text.toUtf8();
    bytes_.assign(utf8.constData(), size_t(utf8.size()));
    OPENSSL_cleanse(utf8.data(), size_t(utf8.size()));
}

void SecretText::wipe() {
    if (!bytes_.empty()) OPENSSL_cleanse(bytes_.data(), bytes_.size());
    bytes_.clear();
}

} // namespace qv::ui
