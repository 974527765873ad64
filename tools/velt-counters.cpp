// velt-counters: shows the counters of a proxy while it runs, as text, as JSON, or as Prometheus reads them.
#include <QXStats/CounterTable.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

using QXStats::CounterTable;
using Values = std::vector<CounterTable::Value>;

constexpr char kUsage[] =
    "usage: velt-counters [--json | --prometheus] PROXY\n"
    "       velt-counters [--json | --prometheus] --file FILE\n"
    "Shows the counters of a proxy, or those in a file of counters (docs/formats/counters.md).\n";

enum class Form { Text, Json, Prometheus };

struct Options {
    Form form = Form::Text;
    std::string proxy;
    std::string file;
    bool help = false;
    bool good = true;
};

Options Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string_view const word = argv[i];
        if (word == "--json") {
            options.form = Form::Json;
        } else if (word == "--prometheus") {
            options.form = Form::Prometheus;
        } else if (word == "--help") {
            options.help = true;
        } else if (word == "--file" && i + 1 < argc) {
            options.file = argv[++i];
        } else if (word.starts_with("-") || !options.proxy.empty()) {
            options.good = false;
        } else {
            options.proxy = word;
        }
    }
    options.good = options.good && (options.help || options.proxy.empty() != options.file.empty());
    return options;
}

CounterTable const* Find(Options const& options) {
    if (!options.file.empty()) return CounterTable::Open(options.file);
    if (CounterTable const* const table = CounterTable::Open(CounterTable::FilePath(options.proxy))) return table;
    return CounterTable::Open(CounterTable::MemoryPath(options.proxy));
}

// Quoted for JSON, and for a label of Prometheus, which share what a name may hold here.
std::string Quoted(std::string_view text) {
    std::string out = "\"";
    for (char const c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
    }
    return out += '"';
}

std::string MetricName(std::string_view name) {
    std::string metric = "velt_";
    for (char const c : name) {
        bool const plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        metric += plain ? c : '_';
    }
    return metric += "_total";
}

void PrintText(Values const& values) {
    for (CounterTable::Value const& one : values) {
        std::string const quoted = Quoted(one.name);
        std::printf("%s %lu\n", quoted.substr(1, quoted.size() - 2).c_str(), one.value);
    }
}

void PrintJson(Values const& values, std::string const& proxy) {
    std::printf("{\"proxy\":%s,\"counters\":{", Quoted(proxy).c_str());
    char const* separator = "";
    for (CounterTable::Value const& one : values) {
        std::printf("%s%s:%lu", separator, Quoted(one.name).c_str(), one.value);
        separator = ",";
    }
    std::printf("}}\n");
}

// Two names may become one metric; the label tells them apart.
void PrintPrometheus(Values values, std::string const& proxy) {
    auto const byMetric = [](CounterTable::Value const& a, CounterTable::Value const& b) {
        return MetricName(a.name) < MetricName(b.name);
    };
    std::stable_sort(values.begin(), values.end(), byMetric);
    std::string last;
    for (CounterTable::Value const& one : values) {
        std::string const metric = MetricName(one.name);
        if (metric != last) std::printf("# TYPE %s counter\n", metric.c_str());
        std::printf("%s{proxy=%s,counter=%s} %lu\n", metric.c_str(), Quoted(proxy).c_str(), Quoted(one.name).c_str(),
                    one.value);
        last = metric;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = Parse(argc, argv);
    if (!options.good || options.help) {
        std::fputs(kUsage, options.help ? stdout : stderr);
        return options.help ? 0 : 2;
    }
    CounterTable const* const table = Find(options);
    if (!table) {
        std::string const& name = options.file.empty() ? options.proxy : options.file;
        std::fprintf(stderr, "velt-counters: no counters of %s: %s\n", name.c_str(),
                     errno == EBADMSG ? "not a file of counters" : std::strerror(errno));
        return 1;
    }
    Values values = table->Read();
    std::sort(values.begin(), values.end(), [](auto const& a, auto const& b) { return a.name < b.name; });
    switch (options.form) {
        case Form::Text:
            PrintText(values);
            break;
        case Form::Json:
            PrintJson(values, table->Proxy());
            break;
        case Form::Prometheus:
            PrintPrometheus(values, table->Proxy());
            break;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
