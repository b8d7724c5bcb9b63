// qv-image: the disk-image utility. One verb per run; the exit status and
// standard output are for the caller, one line on standard error says why a
// run failed.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "image/ImageTool.h"

using namespace qv;
using namespace qv::image;

namespace {

bool parseLayer(const std::string& word, Layer* layer) {
    if (word == "fuse2fs") {
        *layer = Layer::Fuse2fs;
        return true;
    }
    if (word == "kernel") {
        *layer = Layer::Kernel;
        return true;
    }
    return false;
}

int run(std::vector<std::string> words, QVError* error) {
    VerbContext ctx;
    if (const char* env = std::getenv("QV_IMAGE_LAYER"); env && *env) {
        if (!parseLayer(env, &ctx.layer))
            return refuse(error, QVImageExitUsage,
                          std::string("unknown file-system layer '") + env + "' in QV_IMAGE_LAYER");
    }
    if (!words.empty() && words[0] == "-layer") {
        if (words.size() < 2 || !parseLayer(words[1], &ctx.layer))
            return refuse(error, QVImageExitUsage, "-layer takes fuse2fs or kernel");
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty())
        return refuse(error, QVImageExitUsage, "no verb: create, attach, detach, imageinfo, compact or resize");
    const std::string verb = words[0];
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (verb == "create") return runCreate(args, ctx, error);
    if (verb == "attach") return runAttach(args, ctx, error);
    if (verb == "detach") return runDetach(args, ctx, error);
    if (verb == "imageinfo") return runImageInfo(args, ctx, error);
    if (verb == "compact") return runCompact(args, ctx, error);
    if (verb == "resize") return runResize(args, ctx, error);
    return refuse(error, QVImageExitUsage, "unknown verb '" + verb + "'");
}

} // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    QVError error;
    int status;
    try {
        status = run(std::vector<std::string>(argv + 1, argv + argc), &error);
    } catch (const std::exception& e) {
        status = QVImageExitFailure;
        error = QVError{kImageErrorDomain, QVImageExitFailure, std::string("internal error: ") + e.what()};
    }
    if (status != QVImageExitOK) {
        std::string text = error.description.empty() ? "failed" : error.description;
        for (char& c : text)
            if (c == '\n' || c == '\r') c = ' ';
        std::fprintf(stderr, "qv-image: %s\n", text.c_str());
    }
    return status;
}
