#include <velt/lookup/NetPolicy.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <velt/errors/Failures.h>
#include <velt/lookup/HostCheck.h>
#include <velt/lookup/NetCheckIPV4.h>
#include <velt/streams/FileStream.h>

namespace VELT {

namespace {

constexpr unsigned kFileMemory = 0x4000;  // bytes; a larger file is read through it
constexpr std::string_view kNetwork = "NETWORK ";
constexpr std::string_view kDomain = "DOMAIN ";

bool StartsWith(char const* line, std::string_view word) { return ::strncasecmp(line, word.data(), word.size()) == 0; }

}  // namespace

std::unique_ptr<NetPolicyCheck> NetPolicyCheck::create_policy(char const* line) {
    LineRemark unread;
    return create_policy(line, unread);
}

std::unique_ptr<NetPolicyCheck> NetPolicyCheck::create_policy(char const* line, LineRemark& remark) {
    if (StartsWith(line, kNetwork)) return NetCheckIPV4::parse(line + kNetwork.size(), remark);
    if (StartsWith(line, kDomain)) return HostCheck::parse(line + kDomain.size(), remark);
    if (*line != '#') remark = {"is no comment and begins with neither \"NETWORK \" nor \"DOMAIN \"", line};
    return nullptr;
}

void NetPolicy::load(std::string path) {
    load(path, [](NetPolicyLine const&) {});
}

NetPolicy::Stop NetPolicy::load(std::string const& path, Watcher const& watch) {
    FileStream file(kFileMemory);
    if (file.spool_from_disk(path.c_str()) != 0) {
        int const error = errno;
        file.release();
        throw FWException<fw_exception_tag::resource>(error, "Opening File");
    }
    std::vector<std::unique_ptr<NetPolicyCheck>> checks;
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    for (unsigned number = 1; file.getline(line, true, io_done, state, true) > 0 && state != LINE_OVERFLOW; ++number) {
        LineRemark remark;
        auto check = NetPolicyCheck::create_policy(line, remark);
        watch({number, line, check.get(), remark});
        if (check) checks.push_back(std::move(check));
    }
    m_checks = std::move(checks);
    return state == LINE_OVERFLOW ? Stop::atLongLine : state == LINE_COMPLETE ? Stop::atEmptyLine : Stop::atEnd;
}

int NetPolicy::score(Connection* session, TCPConnection& end) {
    int best = -1;
    for (auto const& check : m_checks) best = std::max(best, check->score(session, end));
    return best;
}

}  // namespace VELT
