#include "Options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace velt_load {

namespace {

enum Option {
    TO = 1,
    RATE,
    CLIENTS,
    SECONDS,
    SESSIONS,
    SOURCES,
    TIMEOUT_MS,
    LINE,
    LOG_FAILURES,
    CONNECTIONS,
    RAMP,
    INTERVAL_MS,
    ABANDON,
    PORT,
    ADDRESS,
    FILE_NAME,
    SOCKET
};

constexpr option kOptions[] = {
    {"to", required_argument, nullptr, TO},
    {"rate", required_argument, nullptr, RATE},
    {"clients", required_argument, nullptr, CLIENTS},
    {"seconds", required_argument, nullptr, SECONDS},
    {"sessions", required_argument, nullptr, SESSIONS},
    {"sources", required_argument, nullptr, SOURCES},
    {"timeout-ms", required_argument, nullptr, TIMEOUT_MS},
    {"line", required_argument, nullptr, LINE},
    {"log-failures", required_argument, nullptr, LOG_FAILURES},
    {"connections", required_argument, nullptr, CONNECTIONS},
    {"ramp", required_argument, nullptr, RAMP},
    {"interval-ms", required_argument, nullptr, INTERVAL_MS},
    {"abandon", no_argument, nullptr, ABANDON},
    {"port", required_argument, nullptr, PORT},
    {"address", required_argument, nullptr, ADDRESS},
    {"file", required_argument, nullptr, FILE_NAME},
    {"socket", required_argument, nullptr, SOCKET},
    {nullptr, 0, nullptr, 0},
};

double Positive(char const* text) {
    char* end = nullptr;
    double const value = std::strtod(text, &end);
    if (end == text || *end || !(value > 0) || value > 1e9) Usage();
    return value;
}

unsigned Count(char const* text) {
    double const value = Positive(text);
    if (value != std::floor(value)) Usage();
    return static_cast<unsigned>(value);
}

unsigned short Port(char const* text) {
    unsigned const value = Count(text);
    if (value > 65535) Usage();
    return static_cast<unsigned short>(value);
}

void ReadTarget(sockaddr_in& address, std::string const& text) {
    std::size_t const colon = text.rfind(':');
    address.sin_family = AF_INET;
    if (colon == text.npos || ::inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1) Usage();
    address.sin_port = htons(Port(text.c_str() + colon + 1));
}

void Take(Options& options, int option, char const* text) {
    switch (option) {
        case TO:
            return ReadTarget(options.target.address, text);
        case RATE:
            options.rate = Positive(text);
            return;
        case CLIENTS:
            options.clients = Count(text);
            return;
        case SECONDS:
            options.seconds = Positive(text);
            return;
        case SESSIONS:
            options.sessions = Count(text);
            return;
        case SOURCES:
            options.target.sources = Count(text);
            return;
        case TIMEOUT_MS:
            options.timeoutMs = Count(text);
            return;
        case LINE:
            options.target.line = std::string(text) + "\r\n";
            return;
        case LOG_FAILURES:
            options.failureLog = text;
            return;
        case CONNECTIONS:
            options.connections = Count(text);
            return;
        case RAMP:
            options.ramp = Positive(text);
            return;
        case INTERVAL_MS:
            options.intervalMs = Count(text);
            return;
        case ABANDON:
            options.abandon = true;
            return;
        case PORT:
            options.port = std::string_view(text) == "0" ? 0 : Port(text);
            return;
        case ADDRESS:
            options.address = text;
            return;
        case FILE_NAME:
            options.file = text;
            return;
        case SOCKET:
            options.socket = text;
            return;
        default:
            Usage();
    }
}

}  // namespace

Options ReadOptions(int argc, char** argv) {
    Options options;
    for (int option; (option = ::getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) Take(options, option, optarg);
    if (optind != argc) Usage();
    return options;
}

void Usage() {
    std::fputs(
        "usage: velt_load connect --to HOST:PORT (--seconds S | --sessions N) [--rate N] [--clients C] [--sources N]\n"
        "                         [--timeout-ms N] [--line TEXT] [--log-failures FILE]\n"
        "       velt_load idle    --to HOST:PORT --connections N [--sources N] [--ramp N] [--timeout-ms N] "
        "[--abandon]\n"
        "       velt_load slow    --to HOST:PORT --connections N [--interval-ms N] [--seconds S] [--sources N] [--ramp "
        "N]\n"
        "       velt_load bulk    --to HOST:PORT --connections N --seconds S\n"
        "       velt_load ping    --to HOST:PORT --seconds S\n"
        "       velt_load mail    --to HOST:PORT --file FILE --sessions N [--clients C] [--timeout-ms N]\n"
        "       velt_load scan    --socket PATH --file FILE --sessions N [--clients C]\n"
        "       velt_load serve   --port P [--address A]\n"
        "       velt_load sink    --port P [--address A]\n"
        "       velt_load relay-loop|relay-splice --to HOST:PORT --port P [--address A]\n",
        stderr);
    std::exit(2);
}

}  // namespace velt_load
