#include "ui/shell/SecretText.h"

#include "vault/QVCrypto.h"

namespace qv::ui {

SecretText::SecretText(const QString& text) {
    QByteArray utf8 = text.toUtf8();
    bytes_.assign(utf8.constData(), size_t(utf8.size()));
    QVWipe(utf8.data(), size_t(utf8.size()));
}

void SecretText::wipe() { QVWipe(bytes_); }

} // namespace qv::ui
