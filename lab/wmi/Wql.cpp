#include "lab/wmi/Wql.h"

#include "lab/wmi/Schema.h"

#include <cwchar>
#include <cwctype>

namespace lab::wmi
{

namespace
{

struct Token
{
    enum class Kind
    {
        Word,
        Text,
        Number,
        Symbol,
        End,
        Bad
    };
    Kind kind = Kind::End;
    std::wstring text;
};

bool IsWordStart(wchar_t c)
{
    return std::iswalpha(c) != 0 || c == L'_';
}

class Scanner
{
public:
    explicit Scanner(std::wstring_view text) : m_text(text) {}

    Token Next()
    {
        while (m_at < m_text.size() && std::iswspace(m_text[m_at]) != 0)
        {
            ++m_at;
        }
        if (m_at == m_text.size())
        {
            return {};
        }
        const wchar_t c = m_text[m_at];
        if (c == L'\'' || c == L'"')
        {
            return Quoted(c);
        }
        const std::size_t start = m_at;
        if (IsWordStart(c))
        {
            while (m_at < m_text.size() &&
                   (IsWordStart(m_text[m_at]) || std::iswdigit(m_text[m_at]) != 0 || m_text[m_at] == L'.'))
            {
                ++m_at;
            }
            return {Token::Kind::Word, std::wstring{m_text.substr(start, m_at - start)}};
        }
        if (std::iswdigit(c) != 0 || c == L'-')
        {
            ++m_at;
            while (m_at < m_text.size() && (std::iswdigit(m_text[m_at]) != 0 || m_text[m_at] == L'.'))
            {
                ++m_at;
            }
            return {Token::Kind::Number, std::wstring{m_text.substr(start, m_at - start)}};
        }
        static constexpr std::wstring_view symbols[] = {L"<>", L"!=", L"<=", L">=", L"=", L"<",
                                                        L">",  L"(",  L")",  L"*",  L","};
        for (const std::wstring_view symbol : symbols)
        {
            if (m_text.substr(m_at, symbol.size()) == symbol)
            {
                m_at += symbol.size();
                return {Token::Kind::Symbol, std::wstring{symbol}};
            }
        }
        return {Token::Kind::Bad, {}};
    }

private:
    Token Quoted(wchar_t quote)
    {
        Token token{Token::Kind::Text, {}};
        for (++m_at; m_at < m_text.size(); ++m_at)
        {
            if (m_text[m_at] == quote)
            {
                ++m_at;
                return token;
            }
            if (m_text[m_at] == L'\\' && m_at + 1 < m_text.size())
            {
                ++m_at; // a backslash takes the next character as it is
            }
            token.text += m_text[m_at];
        }
        return {Token::Kind::Bad, {}};
    }

    std::wstring_view m_text;
    std::size_t m_at = 0;
};

struct SyntaxError
{
};

class Parser
{
public:
    explicit Parser(std::wstring_view text) : m_scanner(text) { Advance(); }

    Query Parse()
    {
        Query query;
        Expect(L"SELECT");
        if (!TakeSymbol(L"*"))
        {
            do
            {
                query.properties.push_back(Name());
            } while (TakeSymbol(L","));
        }
        Expect(L"FROM");
        query.className = Name();
        if (TakeWord(L"WITHIN"))
        {
            if (m_token.kind != Token::Kind::Number)
            {
                throw SyntaxError{};
            }
            query.within = std::wcstod(m_token.text.c_str(), nullptr);
            Advance();
        }
        if (TakeWord(L"WHERE"))
        {
            query.where = Alternatives();
        }
        if (m_token.kind != Token::Kind::End)
        {
            throw SyntaxError{};
        }
        return query;
    }

private:
    using Pointer = std::unique_ptr<Condition>;

    void Advance()
    {
        m_token = m_scanner.Next();
        if (m_token.kind == Token::Kind::Bad)
        {
            throw SyntaxError{};
        }
    }
    bool TakeWord(std::wstring_view word)
    {
        if (m_token.kind != Token::Kind::Word || !EqualNoCase(m_token.text, word))
        {
            return false;
        }
        Advance();
        return true;
    }
    bool TakeSymbol(std::wstring_view symbol)
    {
        if (m_token.kind != Token::Kind::Symbol || m_token.text != symbol)
        {
            return false;
        }
        Advance();
        return true;
    }
    void Expect(std::wstring_view word)
    {
        if (!TakeWord(word))
        {
            throw SyntaxError{};
        }
    }
    std::wstring Name()
    {
        if (m_token.kind != Token::Kind::Word)
        {
            throw SyntaxError{};
        }
        std::wstring name = std::move(m_token.text);
        Advance();
        return name;
    }

    Pointer Join(Condition::Kind kind, Pointer left, Pointer right)
    {
        auto condition = std::make_unique<Condition>();
        condition->kind = kind;
        condition->left = std::move(left);
        condition->right = std::move(right);
        return condition;
    }
    Pointer Alternatives()
    {
        Pointer condition = Conjunction();
        while (TakeWord(L"OR"))
        {
            condition = Join(Condition::Kind::Or, std::move(condition), Conjunction());
        }
        return condition;
    }
    Pointer Conjunction()
    {
        Pointer condition = Term();
        while (TakeWord(L"AND"))
        {
            condition = Join(Condition::Kind::And, std::move(condition), Term());
        }
        return condition;
    }
    Pointer Term()
    {
        if (TakeWord(L"NOT"))
        {
            return Join(Condition::Kind::Not, Term(), nullptr);
        }
        if (TakeSymbol(L"("))
        {
            Pointer condition = Alternatives();
            if (!TakeSymbol(L")"))
            {
                throw SyntaxError{};
            }
            return condition;
        }
        auto condition = std::make_unique<Condition>();
        condition->property = Name();
        condition->op = Operator(condition->value);
        if (m_operatorTakesValue)
        {
            condition->value = Literal();
        }
        return condition;
    }
    Condition::Operator Operator(Value& value)
    {
        using Op = Condition::Operator;
        m_operatorTakesValue = true;
        if (TakeWord(L"LIKE"))
        {
            return Op::Like;
        }
        if (TakeWord(L"IS"))
        {
            m_operatorTakesValue = false;
            value = std::monostate{};
            const bool negated = TakeWord(L"NOT");
            Expect(L"NULL");
            return negated ? Op::NotEqual : Op::Equal;
        }
        static constexpr std::pair<std::wstring_view, Op> operators[] = {
            {L"=", Op::Equal},        {L"<>", Op::NotEqual}, {L"!=", Op::NotEqual},      {L"<", Op::Less},
            {L"<=", Op::LessOrEqual}, {L">", Op::Greater},   {L">=", Op::GreaterOrEqual}};
        for (const auto& [symbol, op] : operators)
        {
            if (TakeSymbol(symbol))
            {
                return op;
            }
        }
        throw SyntaxError{};
    }
    Value Literal()
    {
        Value value;
        switch (m_token.kind)
        {
        case Token::Kind::Text:
            value = m_token.text;
            break;
        case Token::Kind::Number:
            value = static_cast<std::int32_t>(std::wcstoll(m_token.text.c_str(), nullptr, 10));
            break;
        case Token::Kind::Word:
            if (EqualNoCase(m_token.text, L"TRUE") || EqualNoCase(m_token.text, L"FALSE"))
            {
                value = EqualNoCase(m_token.text, L"TRUE");
            }
            else if (!EqualNoCase(m_token.text, L"NULL"))
            {
                throw SyntaxError{};
            }
            break;
        default:
            throw SyntaxError{};
        }
        Advance();
        return value;
    }

    Scanner m_scanner;
    Token m_token;
    bool m_operatorTakesValue = true;
};

std::wstring LowerText(const std::wstring& text)
{
    std::wstring result = text;
    for (wchar_t& c : result)
    {
        c = static_cast<wchar_t>(std::towlower(c));
    }
    return result;
}

// '%' stands for any text, '_' for one character.
bool Like(std::wstring_view text, std::wstring_view pattern)
{
    if (pattern.empty())
    {
        return text.empty();
    }
    if (pattern.front() == L'%')
    {
        for (std::size_t skip = 0; skip <= text.size(); ++skip)
        {
            if (Like(text.substr(skip), pattern.substr(1)))
            {
                return true;
            }
        }
        return false;
    }
    return !text.empty() && (pattern.front() == L'_' || pattern.front() == text.front()) &&
           Like(text.substr(1), pattern.substr(1));
}

bool Ordered(int order, Condition::Operator op)
{
    using Op = Condition::Operator;
    switch (op)
    {
    case Op::Equal:
        return order == 0;
    case Op::NotEqual:
        return order != 0;
    case Op::Less:
        return order < 0;
    case Op::LessOrEqual:
        return order <= 0;
    case Op::Greater:
        return order > 0;
    case Op::GreaterOrEqual:
        return order >= 0;
    case Op::Like:
        return false;
    }
    return false;
}

// Numbers and flags in quotes compare as what the property is.
std::optional<std::int64_t> AsNumber(const Value& value)
{
    if (const auto* number = std::get_if<std::int32_t>(&value))
    {
        return *number;
    }
    if (const auto* state = std::get_if<bool>(&value))
    {
        return *state ? 1 : 0;
    }
    if (const auto* text = std::get_if<std::wstring>(&value))
    {
        if (EqualNoCase(*text, L"true") || EqualNoCase(*text, L"false"))
        {
            return EqualNoCase(*text, L"true") ? 1 : 0;
        }
        wchar_t* end = nullptr;
        const std::int64_t number = std::wcstoll(text->c_str(), &end, 10);
        return end != text->c_str() && *end == 0 ? std::optional{number} : std::nullopt;
    }
    return std::nullopt;
}

bool Compare(const Value& actual, Condition::Operator op, const Value& wanted)
{
    const bool isThere = !std::holds_alternative<std::monostate>(actual);
    if (std::holds_alternative<std::monostate>(wanted))
    {
        return op == Condition::Operator::Equal ? !isThere : op == Condition::Operator::NotEqual && isThere;
    }
    if (!isThere)
    {
        return false;
    }
    if (const auto* text = std::get_if<std::wstring>(&actual))
    {
        const auto* other = std::get_if<std::wstring>(&wanted);
        if (other == nullptr)
        {
            return false;
        }
        const std::wstring a = LowerText(*text);
        const std::wstring b = LowerText(*other);
        return op == Condition::Operator::Like ? Like(a, b) : Ordered(a.compare(b), op);
    }
    const auto a = AsNumber(actual);
    const auto b = AsNumber(wanted);
    return a && b && Ordered(*a < *b ? -1 : *a > *b ? 1 : 0, op);
}

} // namespace

std::optional<Query> ParseQuery(std::wstring_view text)
try
{
    return Parser{text}.Parse();
}
catch (const SyntaxError&)
{
    return std::nullopt;
}

bool Meets(const Condition* condition, const PropertyReader& read)
{
    if (condition == nullptr)
    {
        return true;
    }
    switch (condition->kind)
    {
    case Condition::Kind::And:
        return Meets(condition->left.get(), read) && Meets(condition->right.get(), read);
    case Condition::Kind::Or:
        return Meets(condition->left.get(), read) || Meets(condition->right.get(), read);
    case Condition::Kind::Not:
        return !Meets(condition->left.get(), read);
    case Condition::Kind::Compare:
        return Compare(read(condition->property), condition->op, condition->value);
    }
    return false;
}

void ForEachProperty(const Condition* condition, const std::function<void(std::wstring_view)>& see)
{
    if (condition == nullptr)
    {
        return;
    }
    if (condition->kind == Condition::Kind::Compare)
    {
        see(condition->property);
    }
    ForEachProperty(condition->left.get(), see);
    ForEachProperty(condition->right.get(), see);
}

} // namespace lab::wmi
