// The text form of an expression.
#include <strings.h>

#include <utility>

#include <QXid/Expression.h>

namespace qxid {
namespace {

enum class Kind { And, Or, Not, Open, Close, Word, Quoted, End };

struct Token {
    Kind kind = Kind::End;
    std::string text;
    std::size_t at = 0;
};

constexpr std::string_view Blanks = " \t\r\n";
constexpr std::string_view WordEnds = " \t\r\n()\"";

struct Keyword {
    char const* text;
    Kind kind;
};
constexpr Keyword Keywords[] = {{"and", Kind::And}, {"or", Kind::Or}, {"not", Kind::Not}};

Kind WordKind(std::string const& word) {
    for (auto const& keyword : Keywords)
        if (::strcasecmp(word.c_str(), keyword.text) == 0) return keyword.kind;
    return Kind::Word;
}

class Tokens {
public:
    explicit Tokens(std::string_view text) : m_text(text) { advance(); }

    Token const& current() const { return m_current; }

    Token take() {
        Token taken = std::move(m_current);
        advance();
        return taken;
    }

private:
    void advance() {
        auto const start = m_text.find_first_not_of(Blanks, m_at);
        m_current = Token{Kind::End, {}, m_at};  // the end is where the last word ends
        if (start == std::string_view::npos) return;
        m_current.at = m_at = start;
        char const c = m_text[m_at];
        if (c == '(' || c == ')')
            bracket(c);
        else if (c == '"')
            quoted();
        else
            word();
    }

    void bracket(char c) {
        m_current.kind = c == '(' ? Kind::Open : Kind::Close;
        m_current.text = c;
        ++m_at;
    }

    void word() {
        auto const end = std::min(m_text.find_first_of(WordEnds, m_at), m_text.size());
        m_current.text = m_text.substr(m_at, end - m_at);
        m_current.kind = WordKind(m_current.text);
        m_at = end;
    }

    void quoted() {
        m_current.kind = Kind::Quoted;
        for (++m_at; m_at < m_text.size() && m_text[m_at] != '"'; ++m_at) {
            if (m_text[m_at] == '\\') escape();
            if (m_at < m_text.size()) m_current.text += m_text[m_at];
        }
        if (m_at >= m_text.size()) throw SyntaxError{m_current.at, "the value has no closing quote"};
        ++m_at;
    }

    void escape() {
        ++m_at;
        bool const known = m_at < m_text.size() && (m_text[m_at] == '"' || m_text[m_at] == '\\');
        if (!known) throw SyntaxError{m_at - 1, "a backslash stands before a quote or a backslash only"};
    }

    std::string_view const m_text;
    std::size_t m_at = 0;
    Token m_current;
};

class Parser {
public:
    Parser(std::string_view text, SpotOfByte spotOf) : m_tokens(text), m_spotOf(std::move(spotOf)) {}

    ExpressionPtr whole() {
        auto expression = any(0);
        auto const& left = m_tokens.current();
        if (left.kind == Kind::Close) throw SyntaxError{left.at, "a closing bracket without its opening one"};
        if (left.kind != Kind::End) throw SyntaxError{left.at, "'and' or 'or' expected before '" + left.text + "'"};
        return expression;
    }

private:
    ExpressionPtr any(int depth) {
        return joined(Kind::Or, false, [&] { return all(depth); });
    }

    ExpressionPtr all(int depth) {
        return joined(Kind::And, true, [&] { return factor(depth); });
    }

    template <class Operand>
    ExpressionPtr joined(Kind separator, bool all, Operand operand) {
        std::vector<ExpressionPtr> operands;
        operands.push_back(operand());
        while (m_tokens.current().kind == separator) {
            m_tokens.take();
            operands.push_back(operand());
        }
        if (operands.size() == 1) return std::move(operands.front());
        return std::make_unique<Junction>(all, std::move(operands));
    }

    ExpressionPtr factor(int depth) {
        auto const& token = m_tokens.current();
        bool const nests = token.kind == Kind::Not || token.kind == Kind::Open;
        if (nests && depth == MaxExpressionDepth)
            throw SyntaxError{token.at, "the expression is nested deeper than 64"};
        switch (token.kind) {
            case Kind::Not:
                m_tokens.take();
                return std::make_unique<Negation>(factor(depth + 1));
            case Kind::Open:
                return bracket(depth + 1);
            case Kind::Word:
                return atom();
            case Kind::End:
                throw SyntaxError{token.at, "the expression ends where a condition is expected"};
            default:
                throw SyntaxError{token.at, "a condition expected, not '" + token.text + "'"};
        }
    }

    ExpressionPtr bracket(int depth) {
        auto const opening = m_tokens.take();
        auto expression = any(depth);
        if (m_tokens.current().kind != Kind::Close) throw SyntaxError{opening.at, "the bracket is not closed"};
        m_tokens.take();
        return expression;
    }

    ExpressionPtr atom() {
        auto const subject = m_tokens.take();
        Spot const spot = m_spotOf(subject.at);
        auto const op = expect(Kind::Word, "an operator expected after '" + subject.text + "'");
        auto const value = expect(Kind::Quoted, "a value in quotes expected after '" + op.text + "'");
        return std::make_unique<Atom>(subject.text, op.text, value.text, spot);
    }

    Token expect(Kind kind, std::string const& reason) {
        if (m_tokens.current().kind != kind) throw SyntaxError{m_tokens.current().at, reason};
        return m_tokens.take();
    }

    Tokens m_tokens;
    SpotOfByte const m_spotOf;
};

}  // namespace

ExpressionPtr ParseExpression(std::string_view text, SpotOfByte spotOf) {
    return Parser(text, std::move(spotOf)).whole();
}

}  // namespace qxid
