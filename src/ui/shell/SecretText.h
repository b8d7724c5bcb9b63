#pragma once
// A password taken from a field for one call: its bytes in one buffer that is
// overwritten as soon as the call is done (and at the latest when it goes).
#include <QString>
#include <string>

namespace qv::ui {

class SecretText {
public:
    explicit SecretText(const QString& text);
    ~SecretText() { wipe(); }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;

    const std::string& text() const { return bytes_; }
    void wipe();

private:
    std::string bytes_;
};

} // namespace qv::ui
