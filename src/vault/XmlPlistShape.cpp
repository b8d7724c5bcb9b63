// The XML half of the property-list guard. XML property lists share nothing, so
// what they can do to a parser is nest deeply. This scan follows the markup the
// way libplist's reader does (elements, comments, CDATA, processing instructions
// and a document type; double quotes inside a tag hide what they enclose) and
// counts how deep arrays and dictionaries nest. Whatever it does not understand
// it refuses, so that it never counts fewer levels than libplist would build.
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "vault/PropertyListGuard.h"

namespace qv {

namespace {

class XmlShapeScan {
public:
    XmlShapeScan(const uint8_t* data, size_t size, size_t maxDepth)
        : text_(reinterpret_cast<const char*>(data), size), maxDepth_(maxDepth) {}

    std::string run() {
        // libplist keeps the NUL inside a string's length and then aborts on the
        // string; XML allows none anywhere.
        if (text_.find('\0') != std::string_view::npos) return "a NUL byte, which XML does not allow";
        bool sawElement = false;
        while (skipSpace(), pos_ < text_.size()) {
            if (text_[pos_] != '<') return "text outside an element";
            std::string why;
            if (at("<?")) {
                why = skipQuotedTo("?>", "an unterminated processing instruction");
            } else if (at("<!--")) {
                why = skipTo("-->", "an unterminated comment");
            } else if (at("<!DOCTYPE")) {
                why = skipDocumentType();
            } else if (at("<!")) {
                why = "unexpected markup";
            } else if (at("</")) {
                why = closeElement();
            } else {
                why = openElement();
                sawElement = true;
            }
            if (!why.empty()) return why;
        }
        if (!open_.empty()) return "an element left open";
        if (!sawElement) return "no property list";
        return {};
    }

private:
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
    static bool isContainer(std::string_view name) { return name == "array" || name == "dict"; }
    static bool isLeaf(std::string_view name) {
        for (const char* leaf : {"key", "string", "integer", "real", "date", "data", "true", "false"})
            if (name == leaf) return true;
        return false;
    }

    bool at(std::string_view s) const { return text_.compare(pos_, s.size(), s) == 0; }
    void skipSpace() {
        while (pos_ < text_.size() && isSpace(text_[pos_])) ++pos_;
    }

    // Moves past the next `end`.
    std::string skipTo(std::string_view end, const char* unterminated) {
        const size_t found = text_.find(end, pos_);
        if (found == std::string_view::npos) return unterminated;
        pos_ = found + end.size();
        return {};
    }

    // Moves past the next `end` that is not inside double quotes.
    std::string skipQuotedTo(std::string_view end, const char* unterminated) {
        while (pos_ < text_.size()) {
            if (at(end)) {
                pos_ += end.size();
                return {};
            }
            if (text_[pos_] == '"') {
                const size_t quote = text_.find('"', pos_ + 1);
                if (quote == std::string_view::npos) return unterminated;
                pos_ = quote;
            }
            ++pos_;
        }
        return unterminated;
    }

    // <!DOCTYPE plist PUBLIC "..." "...">. Declarations of its own ([...]) are
    // refused: no property list needs them.
    std::string skipDocumentType() {
        pos_ += std::strlen("<!DOCTYPE");
        while (pos_ < text_.size() && text_[pos_] != '>') {
            if (text_[pos_] == '[') return "a document type with declarations";
            if (text_[pos_] == '"') {
                const size_t quote = text_.find('"', pos_ + 1);
                if (quote == std::string_view::npos) break;
                pos_ = quote;
            }
            ++pos_;
        }
        if (pos_ >= text_.size()) return "an unterminated document type";
        ++pos_;
        return {};
    }

    std::string_view name() {
        const size_t start = pos_;
        while (pos_ < text_.size() && !isSpace(text_[pos_]) && !std::strchr("/<>\"", text_[pos_])) ++pos_;
        return text_.substr(start, pos_ - start);
    }

    std::string openElement() {
        ++pos_;
        const std::string_view tag = name();
        if (tag.empty()) return "a tag without a name";
        // Attributes up to the '>', with quotes as libplist reads them.
        bool empty = false;
        while (pos_ < text_.size() && text_[pos_] != '>') {
            if (text_[pos_] == '<') return "a '<' inside a tag";
            if (text_[pos_] == '"') {
                const size_t quote = text_.find('"', pos_ + 1);
                if (quote == std::string_view::npos) return "an unterminated tag";
                if (text_.substr(pos_, quote - pos_).find('<') != std::string_view::npos) return "a '<' inside a tag";
                pos_ = quote;
            }
            empty = text_[pos_] == '/';
            ++pos_;
        }
        if (pos_ >= text_.size()) return "an unterminated tag";
        ++pos_;
        if (empty) return {};
        if (isLeaf(tag)) return skipLeafContent(tag);
        open_.push_back(tag);
        if (isContainer(tag) && ++containers_ > maxDepth_) return "property list nested too deeply";
        // Elements of other names only ever fail in libplist; they still count.
        if (open_.size() > maxDepth_ + 1) return "property list nested too deeply";
        return {};
    }

    std::string closeElement() {
        pos_ += 2;
        const std::string_view tag = name();
        skipSpace();
        if (pos_ >= text_.size() || text_[pos_] != '>') return "an unterminated closing tag";
        ++pos_;
        if (open_.empty() || open_.back() != tag) return "a closing tag that matches no open element";
        if (isContainer(tag)) --containers_;
        open_.pop_back();
        return {};
    }

    // The text of a leaf, with comments and CDATA sections, up to its closing tag.
    std::string skipLeafContent(std::string_view tag) {
        for (;;) {
            const size_t lt = text_.find('<', pos_);
            if (lt == std::string_view::npos) return "an unterminated element";
            pos_ = lt;
            std::string why;
            if (at("<!--")) {
                why = skipTo("-->", "an unterminated comment");
            } else if (at("<![CDATA[")) {
                why = skipTo("]]>", "an unterminated CDATA section");
            } else if (at("</")) {
                pos_ += 2;
                if (name() != tag) return "markup inside an element that holds text";
                skipSpace();
                if (pos_ >= text_.size() || text_[pos_] != '>') return "an unterminated closing tag";
                ++pos_;
                return {};
            } else {
                return "markup inside an element that holds text";
            }
            if (!why.empty()) return why;
        }
    }

    std::string_view text_;
    size_t maxDepth_;
    size_t pos_ = 0;
    size_t containers_ = 0;
    std::vector<std::string_view> open_;
};

} // namespace

std::string QVXMLPropertyListShapeProblem(const uint8_t* data, size_t size, size_t maxDepth) {
    return XmlShapeScan(data, size, maxDepth).run();
}

} // namespace qv
