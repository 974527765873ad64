// Verdicts in their text form. Either the bytes are such a text, and whatever it says is answered the same by each
// reading, within the buffers and the memory that it may take, and is the same bytes once it was read and written
// twice; or they say what a verdict holds, and what was written of it is what is read.
#include <algorithm>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include <velt/results/SerialDecoding.h>
#include <velt/results/SerializedEFabricResult.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/ScannerStream.h>

#include "fuzz/Input.h"

using velt_fuzz::Input;
using velt_fuzz::Require;
using Verdict = std::unique_ptr<VELT::SerializedEFabricResult>;

namespace {

int room = 0;  // more than any text of this input

Verdict Read(std::string const& text, bool* ended = nullptr) {
    VELT::ScannerStream stream(static_cast<unsigned>(text.size() + 1));
    stream.write(text.data(), static_cast<unsigned>(text.size()));
    stream.seek(0, 0);
    return Verdict(VELT::SerializedEFabricResult::deserialize(&stream, ended));
}

// Keeps what is written.
class Kept : public VELT::BufferedStream {
public:
    int read(char*, unsigned, unsigned* received) override {
        *received = 0;
        return 0;
    }
    int write(char const* data, unsigned length, unsigned*) override {
        text.append(data, length);
        return 0;
    }
    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned*) override {
        for (unsigned i = 0; i < count; ++i) text.append(buffers[i], lengths[i]);
        return 0;
    }
    std::string text;
};

std::string Written(VELT::SerializedEFabricResult const& verdict) {
    Kept kept;
    VELT::SerializedEFabricResult::serialize(&kept, &verdict);
    return kept.text;
}

std::string ReadAndWritten(std::string const& text) {
    bool ended = false;
    Verdict const verdict = Read(text, &ended);
    Require(verdict && ended, "what was written is read whole");
    return Written(*verdict);
}

std::string Bytes(std::wstring const& wide) {
    return std::string(reinterpret_cast<char const*>(wide.data()), wide.size() * sizeof(wchar_t));
}

std::string Shown(wchar_t const* wide) { return wide ? "'" + Bytes(wide) + "'" : "none"; }
std::string Shown(char const* text) { return text ? "'" + std::string(text) + "'" : "none"; }

// --- what a verdict answers ---

std::string Render(IKORProperty const& property, unsigned index) {
    long number = 0;
    unsigned long natural = 0;
    double real = 0;
    if (property.GetLongAt(index, number) && property.GetType() == KORProp_Long) return std::to_string(number);
    if (property.GetULongAt(index, natural) && property.GetType() == KORProp_ULong) return std::to_string(natural);
    if (property.GetDoubleAt(index, real) && property.GetType() == KORProp_Double) return std::to_string(real);
    return Shown(property.GetWideAt(index));
}

std::string Render(IKORPropertyBag const& bag, unsigned long& bags) {
    std::string text = "{";
    for (long i = 0; i < bag.Size(); ++i) {
        IKORProperty const& property = *bag.GetProperty(i);
        text += std::string(property.GetName()) + "=";
        for (unsigned at = 0; at < property.GetCount(); ++at) {
            bool const isBag = property.GetType() == KORProp_Bag;
            bags += isBag;
            text += (isBag ? Render(*property.GetBagAt(at), bags) : Render(property, at)) + ",";
        }
        text += ";";
    }
    return text + "}";
}

std::string Render(IKORScanResult const* result, unsigned long& bags) {
    if (!result) return "no result\n";
    std::string text = std::to_string(result->IsCleaned()) + " " + std::to_string(result->InfectedItems()) + " " +
                       std::to_string(result->GetScanErrorStatus()) + " " + Shown(result->GetScannerClassName()) + " " +
                       Shown(result->GetInfectionList(L' '));
    if (IKORScanPolContextElement const* const place = result->GetScanPolContext()) {
        std::vector<wchar_t> buffer(static_cast<std::size_t>(room));
        text += " at " + Shown(place->GetScanContextString(buffer.data(), room, L' ', L':')) + " in " +
                Shown(place->GetComponentName());
    }
    return text + Render(*result->GetPropertyBag(), bags) + "\n";
}

std::string Names(VELT::SerializedEFabricResult const& verdict, bool components, int size) {
    std::vector<wchar_t> buffer(static_cast<std::size_t>(size));
    if (components)
        verdict.GetInfectedComponentNames(buffer.data(), size, L'\n');
    else
        verdict.GetInfectionNames(buffer.data(), size, L'\n');
    return Bytes(buffer.data());
}

std::string Actions(VELT::SerializedEFabricResult const& verdict, unsigned size) {
    std::vector<char> buffer(std::max(size, 1u));
    unsigned count = 0;
    verdict.GetActionList(buffer.data(), size, '\n', count);
    Require(std::string(buffer.data()).size() == size, "the length of the list of actions");
    return buffer.data();
}

std::string Description(VELT::SerializedEFabricResult const& verdict, int size) {
    std::vector<wchar_t> buffer(static_cast<std::size_t>(size));
    return verdict.GetInfectionDescription(buffer.data(), size) ? Bytes(buffer.data()) : "none";
}

std::string Render(VELT::SerializedEFabricResult const& verdict, unsigned long& bags) {
    std::string text = std::to_string(verdict.IsTriggered()) + std::to_string(verdict.IsModified()) + " " +
                       Shown(verdict.GetMasterActionCode()) + " " + Description(verdict, room) + "\n" +
                       Names(verdict, false, room) + "\n" + Names(verdict, true, room) + "\n" +
                       Actions(verdict, static_cast<unsigned>(room)) + "\n" +
                       Render(verdict.GetMasterScanResult(), bags);
    long position = 0;
    for (auto const* one = verdict.FindFirstScanResult(position); one; one = verdict.FindNextScanResult(position))
        text += Render(one, bags);
    return text;
}

// A list in a smaller buffer is the beginning of the whole one.
void CheckSmallBuffers(VELT::SerializedEFabricResult const& verdict) {
    std::string const names = Names(verdict, false, room), actions = Actions(verdict, static_cast<unsigned>(room));
    for (int size = 1; size < 20; ++size) {
        Require(names.rfind(Names(verdict, false, size), 0) == 0, "the names that fit");
        Require(actions.rfind(Actions(verdict, static_cast<unsigned>(size)), 0) == 0, "the actions that fit");
        Description(verdict, size);
    }
}

void ReadAnything(std::string const& text) {
    Verdict const verdict = Read(text), again = Read(text);
    Require(!verdict == !again, "the same verdict of the same text");
    if (!verdict) return;
    unsigned long bags = 0, same = 0;
    Require(Render(*verdict, bags) == Render(*again, same), "the same answers of the same text");
    auto const dots = static_cast<unsigned long>(std::count(text.begin(), text.end(), '.'));
    Require(bags <= dots + VELT::results::kMostBags, "no more bags than there are names, and some");
    CheckSmallBuffers(*verdict);
    std::string const twice = ReadAndWritten(Written(*verdict));
    if (twice.find("QX_SYSTEM_NAME") == std::string::npos)  // this process puts its name in front of that
        Require(ReadAndWritten(twice) == twice, "the same bytes of what was read and written twice");
}

// --- what was written is read ---

// A verdict is written and told at once.
class Writer {
public:
    explicit Writer(Input& input) : m_input(input) {}

    void Write() {
        bool const triggered = Flag("msr.triggered"), modified = Flag("msr.modified");
        std::string const action = Word();
        m_text += "msr.action ss " + std::to_string(action.size()) + "\n" + action;
        std::string const names = List("msr.infection_names"), places = List("msr.infected_components"),
                          actions = List("msr.actions");
        m_told = std::to_string(triggered) + std::to_string(modified) + " '" + action + "' none\n" + Wide(names) +
                 "\n" + Wide(places) + "\n" + actions + "\n";
        WriteResult("msr.master.result");
        for (unsigned left = m_input.Byte() % 4; left > 0; --left) WriteResult("msr.sr.result");
        m_text += "\n";
    }
    std::string const& text() const { return m_text; }
    std::string const& told() const { return m_told; }

private:
    static std::string Wide(std::string const& text) { return Bytes(std::wstring(text.begin(), text.end())); }

    std::string Word() {
        std::string word = m_input.Text(m_input.Byte() % 12);
        for (char& one : word) one = static_cast<char>('!' + static_cast<unsigned char>(one) % 90);
        return word;
    }
    std::wstring WideWord() {
        std::wstring word;
        for (unsigned left = m_input.Byte() % 12; left > 0; --left)
            word += static_cast<wchar_t>(m_input.Byte() * 4096 + 1);  // no surrogates
        return word;
    }
    bool Flag(std::string const& name) {
        bool const on = m_input.Byte() % 2 == 1;
        m_text += name + " sl " + std::to_string(on) + "\n";
        return on;
    }
    std::string List(std::string const& name) {
        std::string told;
        for (unsigned left = m_input.Byte() % 4; left > 0; --left) {
            std::string const word = "_" + Word();
            m_text += name + " " + word + "\n";
            told += word + "\n";
        }
        return told;
    }
    void Payload(std::wstring const& word) { m_text += std::to_string(word.size()) + "\n" + Bytes(word); }

    void WriteResult(std::string const& name) {
        m_text += name + "\n";
        int const cleaned = static_cast<int>(m_input.Byte()) - 128, items = static_cast<int>(m_input.Byte()) * 99991;
        m_text += "cleanstatus sl " + std::to_string(cleaned) + "\ninfecteditems sl " + std::to_string(items) + "\n";
        bool const error = Flag("errorstatus");
        std::string const word = Word();
        m_text += "classname ss " + std::to_string(word.size()) + "\n" + word;
        std::wstring const list = WideWord();
        m_text += "infectionlist ";
        Payload(list);
        m_told += std::to_string(cleaned) + " " + std::to_string(items) + " " + std::to_string(error) + " '" + word +
                  "' " + Shown(list.c_str()) + "{";
        for (unsigned left = m_input.Byte() % 4; left > 0; --left) WriteProperty(left);
        m_told += "}\n";
        m_text += "\n";
    }
    void WriteProperty(unsigned number) {
        std::string const name = "p" + std::to_string(number);
        bool const inBag = m_input.Byte() % 2 == 1;
        m_told += name + "=";
        if (inBag) m_told += "{v=";
        unsigned const kind = m_input.Byte() % 4, count = 1 + m_input.Byte() % 3;
        for (unsigned i = 0; i < count; ++i)
            WriteValue("property ." + name + (inBag ? "<0>.v " : " ") + (count > 1 ? "m" : "s"), kind);
        m_told += inBag ? ";},;" : ";";
    }
    void WriteValue(std::string const& start, unsigned kind) {
        if (kind == 3) {
            std::wstring const word = WideWord();
            m_text += start + "s ";
            Payload(word);
            m_told += Shown(word.c_str()) + ",";
            return;
        }
        long const number = (static_cast<long>(m_input.Byte()) << 55) + static_cast<long>(m_input.Byte());
        std::string const value = kind == 0   ? std::to_string(number - 100)
                                  : kind == 1 ? std::to_string(static_cast<unsigned long>(number) * 2)
                                              : std::to_string(static_cast<double>(number % 4096) / 8);
        m_text += start + "lLf"[kind] + " " + value + "\n";
        m_told += value + ",";
    }

    Input& m_input;
    std::string m_text, m_told;
};

void ReadWhatWasWritten(Input& input) {
    Writer writer(input);
    writer.Write();
    Verdict const verdict = Read(writer.text());
    Require(verdict != nullptr, "a verdict that was written");
    unsigned long bags = 0;
    Require(Render(*verdict, bags) == writer.told(), "what was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    static auto* const proxy = new VELT::Proxy;  // has the name that a verdict gets
    (void)proxy;
    room = static_cast<int>(size) + 256;  // what is written of an input has lists of a few short words
    Input input(data, size);
    if (input.Byte() % 4 == 0)
        ReadWhatWasWritten(input);
    else
        ReadAnything(input.Rest());
    return 0;
}
