// Salvage: the second look at a message whose structure readers may take in more than one way: it ignores the
// structure, and decodes whatever looks encoded, in each way that a reader might.
// Owner: one scan, its thread.  Units: bytes.  Failure: that of the engines it feeds.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/TransferDecoder.h>

namespace policyloader {

class Salvage {
public:
    using Scans = std::vector<std::unique_ptr<ComponentScan>>;
    using Opener = std::function<Scans()>;  // fresh scans for one salvaged content

    explicit Salvage(Opener opener);
    void feed(std::string_view block);  // from the object's beginning
    void finish();

private:
    void line(std::string_view text, bool ends);
    void run(std::string_view text);
    void endRun();
    void send(Scans& scans, std::string_view text);

    Opener m_opener;
    Scans m_quoted;    // the whole object, as quoted-printable
    Scans m_run;       // each run of lines that look like base64
    Scans m_whole[4];  // the whole object as base64, begun at each place of a group, as nobody knows what came before
    TransferDecoder m_quotedDecoder;
    Base64Decoder m_runDecoder;
    Base64Decoder m_wholeDecoders[4];
    std::string m_buffer;
    bool m_midLine = false;
    bool m_inRun = false;
};

}  // namespace policyloader
