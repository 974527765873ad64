#include "ServersFile.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace rmgrd {

namespace {

constexpr std::size_t kMostServers = 256;
constexpr int kMostItems = 100000;

bool ReadNumber(std::string const& text, int low, int high, int& number) {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= low && number <= high;
}

// Empty: the line is good.
std::string ReadServer(std::string const& line, ServerFacts& server) {
    std::istringstream words(line);
    std::string address, port, capacity, more;
    words >> server.name >> address >> port >> capacity >> more;
    int number = 0;
    server.address.sin_family = AF_INET;
    if (::inet_pton(AF_INET, address.c_str(), &server.address.sin_addr) != 1) return "no address of four numbers";
    if (!ReadNumber(port, 1, 65535, number)) return "no port from 1 to 65535";
    server.address.sin_port = htons(static_cast<in_port_t>(number));
    if (!capacity.empty() && !ReadNumber(capacity, 0, kMostItems, server.capacity)) return "no number of items";
    return more.empty() ? "" : "more than four words";
}

}  // namespace

ServersFile ReadServers(std::istream& in) {
    ServersFile file;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line.resize(std::min(line.size(), line.find('#')));
        if (line.find_first_not_of(" \t\r") == line.npos) continue;
        ServerFacts server;
        std::string problem = ReadServer(line, server);
        if (problem.empty() && file.servers.size() >= kMostServers) problem = "too many servers";
        bool const twice = std::any_of(file.servers.begin(), file.servers.end(),
                                       [&](ServerFacts const& other) { return PlaceOf(other) == PlaceOf(server); });
        if (problem.empty() && twice) problem = PlaceOf(server) + " stands there twice";
        if (problem.empty())
            file.servers.push_back(server);
        else
            file.complaints.push_back("line " + std::to_string(number) + ": " + problem);
    }
    return file;
}

}  // namespace rmgrd
