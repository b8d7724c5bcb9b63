// imageinfo: checks the password and describes the image.
#include <cstdio>

#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VerbSupport.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"

namespace qv::image {

int runImageInfo(const std::vector<std::string>& words, const VerbContext&, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-plist", "-stdinpass"}, {}, &args, error)) return exitStatusOf(error);
    SecureBytes password;
    if (!readPasswordIfGiven(args, true, &password, error)) return exitStatusOf(error);
    ImageBundle image;
    if (!image.open(args.positional, error)) return exitStatusOf(error);
    SecureBytes key;
    if (!image.unwrapKey(password, &key, error)) return exitStatusOf(error);
    key.clear();
    password.clear();

    const ImageInfo& info = image.info();
    uint64_t bands = 0;
    const uint64_t stored = image.storedBytes(&bands);
    const std::string cipher = std::string(encryptionName(info.encryption)) + "-XTS";
    if (args.has("-plist")) {
        Dict d;
        d["format-version"] = Value(static_cast<long long>(info.formatVersion));
        d["size"] = Value(static_cast<unsigned long long>(info.size));
        d["band-size"] = Value(static_cast<unsigned long long>(kBandSize));
        d["sector-size"] = Value(static_cast<unsigned long long>(kSectorSize));
        d["encryption"] = Value(std::string(encryptionName(info.encryption)));
        d["cipher"] = Value(cipher);
        d["bands"] = Value(static_cast<unsigned long long>(bands));
        d["stored-bytes"] = Value(static_cast<unsigned long long>(stored));
        d["attached"] = Value(image.lockedElsewhere());
        auto xml = QVPropertyListToXML(Value::newDict(std::move(d)));
        if (!xml) return refuse(error, QVImageExitFailure, "cannot describe the image");
        std::fwrite(xml->data(), 1, xml->size(), stdout);
    } else {
        std::printf("Format version: %lld\nSize: %llu bytes (%s)\nBand size: %llu\nSector size: %llu\n"
                    "Encryption: %s\nBands: %llu\nStored: %llu bytes (%s)\nAttached: %s\n",
                    static_cast<long long>(info.formatVersion), static_cast<unsigned long long>(info.size),
                    humanSize(info.size).c_str(), static_cast<unsigned long long>(kBandSize),
                    static_cast<unsigned long long>(kSectorSize), cipher.c_str(),
                    static_cast<unsigned long long>(bands), static_cast<unsigned long long>(stored),
                    humanSize(stored).c_str(), image.lockedElsewhere() ? "yes" : "no");
    }
    if (std::fflush(stdout) != 0) return refuse(error, QVImageExitFailure, "cannot write to standard output");
    return QVImageExitOK;
}

} // namespace qv::image
