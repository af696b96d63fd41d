// The values of fields that the exact reader finds, against its reference reader and against what was worked
// out by hand.
#include "exactComparison.h"

#include <gtest/gtest.h>

#include <random>

namespace
{

#ifdef __SANITIZE_ADDRESS__
constexpr unsigned Thinning = 5;
#else
constexpr unsigned Thinning = 1;
#endif

using Paths = std::vector<std::string>;

// A response whose hits have these sources.
std::string responseOf(const std::vector<std::string> &sources)
{
    std::string text = R"({"hits":{"hits":[)";
    for (const std::string &source : sources)
        text.append(text.back() == '[' ? "" : ",")
            .append(R"({"_source":)")
            .append(source)
            .append(R"(,"_id":"i"})");
    return text += "]}}";
}

// What is found in the only hit, and where reading ends if it is refused.
std::string foundIn(const std::string &source, const Paths &paths)
{
    ExactReader reader;
    reader.lookFor(paths);
    const std::string text = responseOf({source});
    reader.read(text.data(), text.size());
    if (!reader.finish())
        return reader.problem();
    EXPECT_EQ(reader.member(0, zq::elasticsearch::HitMember::Source), source == "null" ? "" : source);
    std::string found;
    for (std::size_t i = 0; i < reader.fieldCount(0); ++i)
        found += (i == 0 ? "" : " ") + std::to_string(reader.field(0, i).path) + "=" +
                 std::string(reader.field(0, i).value);
    return found;
}

TEST(Fields, AreFoundAsElasticsearchUnderstandsTheirPaths)
{
    const struct {
        Paths paths;
        std::string source, found;
    } cases[] = {
        {{"a", "b"}, R"({"b":"x,\"}","c":3, "a" : -1.5e3 })", R"(1="x,\"}" 0=-1.5e3)"},
        {{"a"}, R"({"a":{"a":[1,{}]}})", R"(0={"a":[1,{}]})"},
        {{"a.b"}, R"({"a":{"b":1}})", "0=1"},
        {{"a.b"}, R"({"a.b":1,"a":{"b":2},"b":3})", "0=1 0=2"},
        {{"a.b.c"}, R"({"a.b":{"c":1},"a":{"b.c":2,"b":{"c":3}},"a.b.c":4})", "0=1 0=2 0=3 0=4"},
        {{"a.b"}, R"({"a":[{"b":1},7,"b",[[{"b":[2]}],{}],{"b":null}]})", "0=1 0=[2] 0=null"},
        {{"a.b", "a"}, R"({"a":{"b":1}})", R"(1={"b":1} 0=1)"},
        {{"a", "b", "a"}, R"({"a":1})", "0=1 2=1"},
        {{"a.b"}, R"({"a":1,"a.":{"b":1},"a.b.c":1,"ab":1,"b":1,".a.b":1})", ""},
        {{"a..b", ".a", ""}, R"({"a.":{"b":1},"":{"a":2},"a":{"":{"b":3}}})", R"(0=1 2={"a":2} 1=2 0=3)"},
        {{"aé"}, R"({"\u0061\u00e9":1,"aé":2,"\u0041":3})", "0=1 0=2"},
        {{"a.b"}, R"({"\u0061.b":1,"\ud800":2})", "0=1"},
        {{"a"}, "{}", ""},
        {{"a"}, "null", ""},
        {{"a"}, R"([{"a":1}])", ""},
        {{"a"}, R"({"b":"\q","a":"\q","c":{"x" y}})", R"(0="\q")"},
    };
    for (const auto &[paths, source, found] : cases)
        EXPECT_EQ(foundIn(source, paths), found) << source;
    EXPECT_EQ(foundIn(R"({"a":1,})", {"b"}).substr(0, 20), "unexpected character");
}

// What the reader has learnt of the sources before changes nothing but its speed.
TEST(Fields, AreFoundWhateverTheSourcesBefore)
{
    const Paths paths = {"a", "b.c", "a long name that differs late", std::string(100, 'n'), "m300"};
    std::string many = "{", reversed = "}";
    for (int i = 0; i < 600; ++i) {
        const std::string member = "\"m" + std::to_string(i) + "\":" + std::to_string(i);
        many += member + ",";
        reversed.insert(0, "," + member);
    }
    const std::string name(100, 'n');
    const std::string sources[] = {
        R"({"a":1,"b":{"c":2},"d":3})",
        R"({"d":1,"a":2})",
        R"({ "a": 1, "b": {"c": 2} })",
        R"({"a":1"a":2})",
        R"({"b":1,{"a":2}})",
        R"({,"a":1})",
        R"({"a" :1,"b.c" : 2})",
        R"({"a long name that differs early":1,"a long name that differs late":2})",
        R"({"a long name that differs latE":1,"a long name that differs late":2})",
        "{\"" + name + "\":1,\"" + name + "n\":2,\"a\":3}",
        many + R"("a":1})",
        R"({"a":1)" + reversed,
    };
    ExactReaders finders(1, paths);
    for (const std::string &first : sources) {
        for (const std::string &second : sources) {
            const std::string text = responseOf({first, second, first});
            ASSERT_EQ(finders.differenceFrom(expectedOf(text, paths), {text}), "") << text;
        }
    }
}

// A hit with two sources, and lists of hits that count no more.
TEST(Fields, AreThoseOfTheLastSource)
{
    const Paths paths = {"a"};
    ExactReaders finders(1, paths);
    const std::string hit = R"({"_id":"i","_source":{"a":1},"_source":)";
    for (const char *last : {R"({"b":1})", R"({"a":2})", "null", "[]"}) {
        const std::string hits =
            R"("hits":[{"_id":"j","_source":{"a":7}},)" + hit + last + R"(},{"_id":"k"}])";
        for (const std::string &text : {"{\"hits\":{" + hits + "}}", "{\"hits\":{" + hits + "," + hits + "}}",
                                        "{\"hits\":{" + hits + "},\"hits\":{" + hits + "}}"})
            for (std::size_t at = 0; at <= text.size(); ++at)
                ASSERT_EQ(
                    finders.differenceFrom(expectedOf(text, paths), {std::string_view(text).substr(0, at),
                                                                     std::string_view(text).substr(at)}),
                    "")
                    << text << ", cut at " << at;
    }
}

// The depth is that of no stack, in what is passed over and where a path leads through.
TEST(Fields, AreFoundInWhatIsDeep)
{
    const std::size_t depth = 100000;
    const std::string open(depth, '['), closed(depth, ']');
    const std::string array = open + R"({"b":1})" + closed;
    EXPECT_EQ(foundIn(R"({"x":)" + array + R"(,"a":{"b":2}})", {"a.b"}), "0=2");
    EXPECT_EQ(foundIn(R"({"a":)" + array + "}", {"a.b"}), "0=1");
    EXPECT_EQ(foundIn(R"({"a":)" + array + "}", {"a"}), "0=" + array);
    std::string path = "a", objects = R"({"a":)";
    for (std::size_t i = 0; i < depth; ++i) {
        path += ".a";
        objects += R"({"a":)";
    }
    EXPECT_EQ(foundIn(objects + "1" + std::string(depth + 1, '}'), {path}), "0=1");
}

// What is found is held too, and may be more than the text.
TEST(Fields, CountAsBytesHeld)
{
    ExactReader reader;
    reader.lookFor({"a.b"});
    std::string source = R"({"a":[{"b":1})";
    for (int i = 1; i < 1000; ++i)
        source += R"(,{"b":1})";
    const std::string text = responseOf({source + "]}"});
    reader.read(text.data(), text.size());
    ASSERT_TRUE(reader.finish());
    EXPECT_EQ(reader.fieldCount(0), 1000U);
    EXPECT_GT(reader.heldBytes(), text.size() + 12000);
    reader.clear();
    EXPECT_EQ(reader.heldBytes(), 0U);
}

class RandomSources
{
public:
    explicit RandomSources(unsigned seed) : random(seed) {}

    std::size_t below(std::size_t limit) { return random() % limit; }

    Paths paths()
    {
        Paths paths;
        for (std::size_t count = 1 + below(4); count > 0; --count) {
            std::string path = name();
            for (std::size_t more = below(3); more > 0; --more)
                path += "." + name();
            paths.push_back(path);
        }
        return paths;
    }

    // An object, sometimes with a fault.
    std::string source()
    {
        std::string text = object(4);
        if (below(4) == 0)
            text.replace(below(text.size()), below(3), std::string(1, R"({}[]",:\ 0a)"[below(11)]));
        return text;
    }

private:
    std::string name() { return Names[below(std::size(Names))]; }

    std::string blank() { return below(6) == 0 ? " " : ""; }

    std::string object(std::size_t depth)
    {
        std::string text = "{" + blank();
        for (std::size_t count = below(5); count > 0; --count) {
            const std::string written = below(4) == 0 ? Written[below(std::size(Written))] : name();
            text += blank() + "\"" + written + "\"" + blank() + ":" + blank() + value(depth) + blank();
            text += count > 1 ? "," : "";
        }
        return text + "}";
    }

    std::string value(std::size_t depth)
    {
        const std::size_t kind = below(depth == 0 ? 2 : 5);
        if (kind == 0)
            return Scalars[below(std::size(Scalars))];
        if (kind == 1)
            return Strings[below(std::size(Strings))];
        if (kind <= 3)
            return object(depth - 1);
        std::string text = "[";
        for (std::size_t count = below(4); count > 0; --count)
            text += blank() + value(depth - 1) + blank() + (count > 1 ? "," : "");
        return text + "]";
    }

    static constexpr const char *Names[] = {"a", "b", "a", "b", "c", "", "a name of some length"};
    static constexpr const char *Written[] = {
        "a.b",     "b.a", "a.", ".b", "\\u0061", "\\u002e", "a.b.a", "a\\u002eb", "a name of some lengtH",
        "\\ud83d", "x"};
    static constexpr const char *Scalars[] = {"0", "-1.5e+7", "true", "false", "null", "123456"};
    static constexpr const char *Strings[] = {
        R"("")",   R"("a")",   R"("\"a\":{")",
        R"("\\")", R"("]},")", R"("a string that goes on for more than one block of the scanner ]}")"};

    std::mt19937 random;
};

TEST(Fields, AreThoseOfTheReferenceInRandomSources)
{
    std::size_t found = 0;
    for (unsigned seed = 1; seed <= 600 / Thinning; ++seed) {
        RandomSources random(seed);
        const Paths paths = random.paths();
        ExactReaders finders(1, paths);
        for (int page = 0; page < 40; ++page) {
            const std::string text = responseOf({random.source(), random.source(), random.source()});
            const ReferenceResponseReader reference(text, paths);
            for (std::size_t hit = 0; hit < reference.hitCount(); ++hit)
                found += reference.fieldCount(hit);
            const std::size_t size = random.below(text.size()) + 1;
            ASSERT_EQ(exactDifferenceIn(finders, cut(text, {size, 1 + size / 7})), "")
                << "seed " << seed << ", text:\n"
                << text;
        }
    }
    EXPECT_GT(found, 15000U / Thinning);
}

} // namespace
