// EntityHead: the header block of a message or of one of its parts, read the way of the most forgiving reader: a
// field that stands twice counts in each of its forms, so that nobody hides content behind the form we did not take.
// Owner: the walker.  Threads: the scan's.  Failure: none; what cannot be read is absent, and `doubtful` is set.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <policyloader/engines/TransferDecoder.h>

namespace policyloader {

struct EntityHead {
    using Field = std::pair<std::string, std::string>;  // name as written, value unfolded, not yet decoded

    std::vector<Field> fields;
    std::vector<std::string> boundaries;      // of every multipart type declared
    std::vector<TransferEncoding> encodings;  // every one declared, at least one
    std::string type = "text";
    std::string subtype = "plain";
    std::string charset;
    std::string fileName;            // UTF-8; empty: none
    std::vector<std::string> names;  // every one that some reader may take for it
    bool multipart = false;
    bool message = false;    // holds a whole message
    bool ofMessage = false;  // is the head of a message, not of a part
    bool attached = false;   // not to be shown in place
    bool fragment = false;   // holds a piece of a message whose other pieces come in other messages
    bool doubtful = false;

    bool isText() const { return multipart || message || type == "text"; }
    bool isDigest() const { return multipart && subtype == "digest"; }
    std::string typeFields() const;  // the fields that declare the type, as a header block
    bool isEncoded() const { return encodings.size() > 1 || encodings.front() != TransferEncoding::Identity; }

    static EntityHead parse(std::string_view block);
    static EntityHead ofPlainObject(std::string const& name = {});  // of an object that is no message
};

// Whether a line may begin a header block: a name and a colon, or an mbox "From " line.
bool LooksLikeHeader(std::string_view line);

}  // namespace policyloader
