// Makes the documents from their numbers alone.
#include "documents.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <tuple>

namespace veltrane::bench
{

namespace
{

struct KindEntry {
    DocumentKind kind;
    const char *name;
    std::size_t bytes;
};

constexpr std::array<KindEntry, 5> Kinds = {{{DocumentKind::Small, "300B", 300},
                                             {DocumentKind::Medium, "2KB", 2000},
                                             {DocumentKind::Large, "20KB", 20000},
                                             {DocumentKind::Dense, "dense", 2000},
                                             {DocumentKind::Fields, "fields", 2000}}};

// By which the seeds of the kinds are apart. Whatever its value, documents must stay what they are when a
// kind is added.
constexpr std::uint64_t SeedDistance = 4;

const KindEntry &entryOf(DocumentKind kind) { return Kinds[static_cast<std::size_t>(kind)]; }

// The commonest first: the choice favours the front, as language does.
// clang-format off
constexpr std::string_view Words[] = {
    "the", "of", "and", "a", "to", "in", "was", "he", "that", "it", "his", "her", "with", "as", "had",
    "for", "she", "not", "at", "but", "be", "on", "they", "from", "by", "were", "which", "all", "him",
    "this", "have", "said", "there", "one", "so", "or", "when", "what", "an", "their", "been", "no",
    "would", "them", "who", "could", "out", "into", "up", "then", "more", "about", "some", "time", "very",
    "over", "old", "upon", "little", "before", "after", "never", "water", "house", "through", "great",
    "night", "morning", "long", "down", "where", "again", "light", "young", "other", "still", "while",
    "against", "window", "letter", "harbour", "winter", "garden", "mountain", "river", "keeper",
    "captain", "northern", "silence", "evening", "between", "thought", "nothing", "country", "village",
    "another", "without", "himself", "herself", "children", "sailors", "lantern", "whale", "storm",
    "island", "railway", "station", "teacher", "library", "written", "answered", "remembered",
    "afternoon", "direction", "distance", "different", "following", "question", "suddenly", "presently",
    "carefully", "schooner", "lighthouse", "expedition", "observatory", "instrument", "manuscript",
    "neighbours", "government", "understand", "particular", "afterwards", "impossible", "temperature",
    "correspondence", "extraordinary", "circumstances", "Bergen", "Lisbon", "Valparaiso", "Hamburg",
    "Trieste", "Atlantic", "October", "February", "1847", "1912", "tomorrow", "wandering", "gravel",
    "orchard", "thunder", "anchor", "compass", "velvet", "marble", "copper", "granite", "barometer",
    "telegraph", "apothecary", "cartographer", "half-forgotten", "ink", "salt", "oak", "ash"};
// clang-format on

constexpr std::string_view ForeignWords[] = {"café", "Zürich", "naïve", "Malmö",    "São Paulo", "–",
                                             "Łódź", "déjà",   "fünf",  "Ångström", "東京",      "Москва"};

constexpr std::string_view Surnames[] = {"Almeida", "Brontë",      "Castellanos", "Dvořák",
                                         "Eriksen", "Fairweather", "Guðmundsson", "Hollis",
                                         "Ibáñez",  "Jansen",      "Kowalska",    "Lindqvist"};

constexpr std::string_view Genres[] = {"novel", "essay", "poem", "travel", "letters", "history"};
constexpr std::string_view Towns[] = {"oslo", "lima", "pune", "graz", "turin", "accra"};
constexpr std::string_view Labels[] = {"new", "sale", "heavy", "fragile", "outdoor", "spare", "tested", "eu"};
constexpr std::string_view Units[] = {"C", "hPa", "%", "V", "mA", "lx"};

// SplitMix64. The distributions of <random> differ between libraries; this is the same everywhere.
class Generator
{
public:
    explicit Generator(std::uint64_t seed) : state(seed) {}

    // 0 to limit - 1. Far from exactly uniform only for limits that no document needs.
    std::uint64_t below(std::uint64_t limit) { return next() % limit; }
    bool oneIn(std::uint64_t chances) { return below(chances) == 0; }

    template <std::size_t size>
    std::string_view choose(const std::string_view (&list)[size])
    {
        return list[below(size)];
    }

    std::string_view chooseWord()
    {
        const std::uint64_t size = std::size(Words), uniform = below(1U << 16);
        return Words[size * uniform * uniform >> 32];
    }

private:
    std::uint64_t next()
    {
        std::uint64_t mixed = state += 0x9E3779B97F4A7C15U;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
        return mixed ^ (mixed >> 31);
    }

    std::uint64_t state;
};

// Appends as many digits as asked for, with leading zeros.
void appendDigits(std::string &text, std::uint64_t number, std::size_t digits)
{
    const std::string shown = std::to_string(number);
    text.append(digits > shown.size() ? digits - shown.size() : 0, '0').append(shown);
}

// Appends a number with two decimals; `hundredths` is its hundredfold.
void appendDecimal(std::string &text, std::uint64_t hundredths)
{
    text.append(std::to_string(hundredths / 100)) += '.';
    appendDigits(text, hundredths % 100, 2);
}

// Appends the inside of a JSON string: sentences until the text as a whole has that size.
void appendSentences(std::string &text, Generator &generator, std::size_t size)
{
    bool first = true;
    while (text.size() < size) {
        if (!first) {
            text += generator.oneIn(90)   ? ".\\n\\n"
                    : generator.oneIn(12) ? ". "
                    : generator.oneIn(12) ? ", "
                                          : " ";
        }
        first = false;
        if (generator.oneIn(40)) {
            text.append("\\\"").append(generator.chooseWord()).append(" ").append(generator.chooseWord());
            text += "\\\"";
        } else {
            text += generator.oneIn(40) ? generator.choose(ForeignWords) : generator.chooseWord();
        }
    }
}

std::string makeText(Generator &generator, std::size_t size)
{
    std::string source = R"({"title":")";
    appendSentences(source, generator, source.size() + 10 + generator.below(25));
    source.append(R"(","author":")").append(1, static_cast<char>('A' + generator.below(26))).append(". ");
    source.append(generator.choose(Surnames));
    source.append(R"(","year":)").append(std::to_string(1800 + generator.below(220)));
    source.append(R"(,"type":")").append(generator.choose(Genres));
    source.append(R"(","text":")");
    constexpr std::size_t Closing = 2, HalfAWord = 3;
    appendSentences(source, generator, size - Closing - HalfAWord);
    return source += R"("})";
}

void appendReading(std::string &source, Generator &generator, std::uint64_t second)
{
    source.append(R"({"at":)").append(std::to_string(1700000000 + second)).append(R"(,"value":)");
    appendDecimal(source, generator.below(12000));
    source.append(R"(,"unit":")").append(generator.choose(Units)).append(R"(","ok":)");
    source.append(generator.oneIn(9) ? "false" : "true");
    source.append(R"(,"raw":[)").append(std::to_string(generator.below(1024))).append(",");
    source.append(std::to_string(generator.below(1024)))
        .append(",-")
        .append(std::to_string(generator.below(64)));
    source += "]}";
}

std::string makeDevice(Generator &generator, std::uint64_t number, std::size_t size)
{
    std::string source = R"({"sku":"KX-)";
    appendDigits(source, number, 6);
    source.append(R"(","type":"sensor","active":)").append(generator.oneIn(5) ? "false" : "true");
    source.append(R"(,"successor":null,"price":{"amount":)");
    appendDecimal(source, 100 + generator.below(90000));
    source.append(R"(,"currency":"EUR"},"location":{"lat":)");
    appendDecimal(source, generator.below(9000));
    source.append(R"(,"lon":-)");
    appendDecimal(source, generator.below(18000));
    source.append(R"(},"stock":{)");
    for (const std::string_view town : Towns) {
        source.append("\"")
            .append(town)
            .append("\":")
            .append(std::to_string(generator.below(400)))
            .append(",");
    }
    source.back() = '}';
    source.append(R"(,"labels":[")").append(generator.choose(Labels)).append(R"(",")");
    source.append(generator.choose(Labels)).append(R"("],"readings":[)");
    constexpr std::size_t Closing = 2, HalfAReading = 38;
    for (std::uint64_t second = generator.below(1U << 24); source.size() < size - Closing - HalfAReading;) {
        appendReading(source, generator, second += 1 + generator.below(90));
        source += ',';
    }
    source.back() = ']';
    return source += '}';
}

// Appends the inside of a JSON string of about so many bytes.
void appendText(std::string &source, Generator &generator, std::size_t size)
{
    appendSentences(source, generator, source.size() + size);
}

// A day and a time, without quotes.
void appendTime(std::string &source, Generator &generator)
{
    source.append("20");
    appendDigits(source, generator.below(25), 2);
    for (const auto &[separator, least, count] :
         {std::tuple("-", 1, 12), std::tuple("-", 1, 28), std::tuple("T", 0, 24), std::tuple(":", 0, 60)}) {
        source.append(separator);
        appendDigits(source, static_cast<std::uint64_t>(least) + generator.below(count), 2);
    }
    source.append(":00Z");
}

// What a document says of a book's price and place.
void appendTrade(std::string &source, Generator &generator)
{
    source.append(R"(,"price":)");
    appendDecimal(source, 100 + generator.below(90000));
    source.append(R"(,"currency":"EUR","stock":{)");
    for (const std::string_view town : Towns) {
        source.append("\"").append(town).append("\":");
        source.append(std::to_string(generator.below(400))).append(",");
    }
    source.back() = '}';
    source.append(R"(,"successor":null,"tags":[)");
    for (std::uint64_t count = 1 + generator.below(5); count > 0; --count)
        source.append("\"").append(generator.choose(Labels)).append("\",");
    source.back() = ']';
    source.append(R"(,"dimensions":[)").append(std::to_string(90 + generator.below(200))).append(",");
    source.append(std::to_string(60 + generator.below(150))).append(",");
    source.append(std::to_string(5 + generator.below(60))).append(R"(],"location":{"lat":)");
    appendDecimal(source, generator.below(9000));
    source.append(R"(,"lon":-)");
    appendDecimal(source, generator.below(18000));
    source.append("}");
}

std::string makeRecord(Generator &generator, std::uint64_t number, std::size_t size)
{
    std::string source = R"({"sku":"KX-)";
    appendDigits(source, number, 6);
    source.append(R"(","title":")");
    appendText(source, generator, 20 + generator.below(40));
    source.append(R"(","language":"en","author":{"born":)")
        .append(std::to_string(1800 + generator.below(190)));
    source.append(R"(,"name":")").append(1, static_cast<char>('A' + generator.below(26))).append(". ");
    source.append(generator.choose(Surnames)).append(R"("},"genre":")").append(generator.choose(Genres));
    source.append(R"(","year":)").append(std::to_string(1800 + generator.below(220)));
    source.append(R"(,"pages":)").append(std::to_string(30 + generator.below(1200)));
    source.append(R"(,"isbn":"978-)");
    appendDigits(source, generator.below(10000000000), 10);
    source.append(R"(","publisher":")").append(generator.choose(Surnames)).append(" & ");
    source.append(generator.choose(Surnames)).append(R"(","summary":")");
    appendText(source, generator, 200 + generator.below(100));
    source.append("\"");
    appendTrade(source, generator);
    source.append(R"(,"weight":)").append(std::to_string(generator.below(3000)));
    source.append(R"(,"rating":)");
    appendDecimal(source, generator.below(500));
    source.append(R"(,"reviews":)").append(std::to_string(generator.below(20000)));
    source.append(R"(,"active":)").append(generator.oneIn(5) ? "false" : "true").append(R"(,"created":")");
    appendTime(source, generator);
    source.append(R"(","updated":")");
    appendTime(source, generator);
    source.append(R"(","shelf":")").append(generator.choose(Towns)).append("-");
    source.append(std::to_string(generator.below(90))).append(R"(","description":")");
    constexpr std::size_t Closing = 2, HalfAWord = 3;
    appendSentences(source, generator, size - Closing - HalfAWord);
    return source += R"("})";
}

} // namespace

const std::vector<std::string> &tenFields()
{
    static const std::vector<std::string> paths = {"sku",   "title", "author.name", "year",    "publisher",
                                                   "price", "tags",  "active",      "created", "shelf"};
    return paths;
}

const char *nameOf(DocumentKind kind) { return entryOf(kind).name; }

DocumentKind kindNamed(const std::string &name)
{
    for (const KindEntry &entry : Kinds)
        if (name == entry.name)
            return entry.kind;
    throw std::invalid_argument("no kind of document is called " + name);
}

std::string makeId(std::uint64_t number)
{
    std::string id = "doc-";
    appendDigits(id, number, 8);
    return id;
}

std::string makeSource(DocumentKind kind, std::uint64_t number)
{
    Generator generator(number * SeedDistance + static_cast<std::uint64_t>(kind));
    const std::size_t size = entryOf(kind).bytes;
    switch (kind) {
    case DocumentKind::Dense:
        return makeDevice(generator, number, size);
    case DocumentKind::Fields:
        return makeRecord(generator, number, size);
    default:
        return makeText(generator, size);
    }
}

std::string makeResponse(DocumentKind kind, std::uint64_t first, std::uint64_t count, std::uint64_t total,
                         const std::string &scrollId)
{
    std::string response = "{";
    if (!scrollId.empty())
        response.append(R"("_scroll_id":")").append(scrollId).append(R"(",)");
    response += R"("took":4,"timed_out":false,)"
                R"("_shards":{"total":2,"successful":2,"skipped":0,"failed":0},"hits":{"total":{"value":)";
    response.append(std::to_string(total)).append(R"(,"relation":"eq"},"max_score":1.0,"hits":[)");
    for (std::uint64_t number = first; number < first + count; ++number) {
        response.append(number == first ? "" : ",");
        response.append(R"({"_index":")").append(nameOf(kind)).append(R"(","_type":"_doc","_id":")");
        response.append(makeId(number)).append(R"(","_score":1.0,"_source":)");
        response.append(makeSource(kind, number)).append("}");
    }
    return response += "]}}";
}

} // namespace veltrane::bench
