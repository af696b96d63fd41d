// Answers made by hand, good and bad, some with what a reader must make of them.
#include "handMadeAnswers.h"

namespace
{

using zq::elasticsearch::SearchResponseStatus;

std::string finishText(int objects, int arrays, int hitTag, int nextIs, int error)
{
    return "Finish error : { => " + std::to_string(objects) + ", [ => " + std::to_string(arrays) +
           ", hittag => " + std::to_string(hitTag) + ", nextis => " + std::to_string(nextIs) + ", error => " +
           std::to_string(error);
}

std::string withHits(const std::string &hits)
{
    return R"({"hits":{"total":{"value":1,"relation":"eq"},"hits":[)" + hits + "]}}";
}

/// An answer of these documents; `finish` is empty when the end would be accepted.
HandMadeAnswer made(const std::string &name, const std::string &text, int total = 0,
                    const std::vector<Document> &documents = {}, const std::string &finish = "",
                    const std::string &error = "", const std::string &scrollId = "")
{
    return {name, text, Outcome{finish, error, total, scrollId, documents, describe(SearchResponseStatus())}};
}

HandMadeAnswer withId(const std::string &raw, const std::string &decoded)
{
    return made("id " + raw, withHits(R"({"_id":")" + raw + "\"}"), 1, {{decoded, "", "", "", ""}});
}

HandMadeAnswer withTotal(const std::string &raw, int total)
{
    return made("total " + raw, R"({"hits":{"hits":[],"total":)" + raw + "}}", total);
}

// clang-format off: close to an answer a line
std::vector<HandMadeAnswer> madeAnswers()
{
    const std::string first = R"({ "x" : {"b": [1, {"c": "}]\"{"}] } })", typed = R"({"type":"t\u00e9"})",
                      found = R"({"h":["<em>x</em>"]})", failed = finishText(0, 0, 0, 0, 1);
    std::vector<HandMadeAnswer> all = {
        made("three hits, the later ones with less",
             R"({"took":1,"hits":{"total": 3,"max_score":1.0,"hits":[{"_index":"i","_type":"_doc","_id":"a",)"
             R"("_score":1.5,"_source":)" + first + R"(},{"_id":"b","_score": null,"_source":{"type":"t\u00e9"},)"
             R"("highlight":{"h":["<em>x</em>"]},"sort":[{"kind":1},"_id"]},{"_id":"c"}]}})", 3,
             {{"a", first, "1.5", "", ""}, {"b", typed, " null", found, R"(t\u00e9)"},
              {"c", typed, " null", found, R"(t\u00e9)"}}, "", typed),
        made("scroll id stays escaped", R"({"_scroll_id":"a\/b\u003d","hits":{"total":0,"hits":[]}})", 0, {}, "", "",
             R"(a\/b\u003d)"),
        made("highlight without source",
             withHits(R"({"_id":"a","highlight":{"t":["one"]},"_score":2},{"_id":"b","highlight":{"t":[]}})"), 1,
             {{"a", "", "2", R"({"t":["one"]})", ""}, {"b", "", "2", R"({"t":[]})", ""}}),
        made("null source runs on to the next object",
             withHits(R"({"_id":"a","_source":null},{"_id":"b","_source":{"x":1}})"), 1,
             {{"a", R"(":null)", "", "", ""}, {"b", R"({"x":1})", "", "", ""}}, "", R"({"x":1})"),
        made("empty", ""),
        made("no hits at all", R"({"succeeded":true,"num_freed":0})"),
        withId("", ""),
        withId(R"(q\"s\/b\\\b\f\n\r\t)", "q\"s/b\\\b\f\n\r\t"),
        withId(R"(a\u00e9b\u20AC\u0041\u007f\uFFFF)", "a\u00e9b\u20acA\x7f\uffff"),
        withId("caf\u00e9 \u6f22\u5b57 \U0001F40B", "caf\u00e9 \u6f22\u5b57 \U0001F40B"),
        withId(R"(\ud7ff\ue000)", "\xed\x9f\xbf\xee\x80\x80"),
        withId(R"(nul\u0000.)", std::string("nul\0.", 5)),
        withTotal("17", 17), withTotal(" 12 ", 12), withTotal(R"({"value":17,"relation":"eq"})", 17),
        withTotal(R"({"value" : 17})", 17), withTotal("-3", -3), withTotal(R"("7")", 0), withTotal("null", 0),
        withTotal("4294967297", 1), withTotal("99999999999999999999", -1),
        made("a zero total may be followed by another", R"({"hits":{"total":0,"total":2,"hits":[]}})", 2),
        // Errors.
        made("error text", R"({"error":"no such index"})", 0, {}, failed, R"(":"no such index"})"),
        made("error object without an inner object", R"({"error":{"type":"x","reason":"y"},"status":400})", 0, {},
             failed, R"(":{"type":"x","reason":"y"},"status":400})"),
        made("error with an inner object",
             R"({"error":{"root_cause":[{"type":"x"}],"failed":[{"reason":{"type":"q","why":"w"}}]},"status":4})", 0,
             {}, finishText(3, 1, 0, 0, 1), R"({"type":"q","why":"w"})"),
        made("error behind hits", R"({"hits":{"total":1,"hits":[{"_id":"a","_source":{"x":1}}]},"error":null})", 1,
             {{"a", R"({"x":1})", "", "", ""}}, failed, R"({"x":1}":null})"),
        made("error inside an array is no error", R"([{"error":"x"}])"),
        made("error as a value", R"({"a":"error","b":1})", 0, {}, failed, R"(","b":1})"),
        made("two totals", R"({"hits":{"total":1,"total":2,"hits":[]}})", 2, {}, finishText(2, 0, 1, 0, 1)),
        made("total that ends under too many hits", R"({"hits":{"total""hits""hits":1,"a":2})", 0, {},
             finishText(2, 0, 3, 0, 1)),
        // Broken off, or no JSON.
        made("open brace", "{", 0, {}, finishText(1, 0, 0, 0, 0)),
        made("cut inside a hit", R"({"hits":{"total":1,"hits":[{"_id":"a",)", 1, {}, finishText(3, 1, 2, 0, 0)),
        made("names of ours as values", R"({"a":"hits","b":"hits"})", 0, {}, finishText(0, 0, 2, 0, 0)),
        made("type as a value", withHits(R"({"_id":"a","_source":{"b":"type"}})"), 1,
             {{"a", R"({"b":"type"})", "", "", ""}}, finishText(0, 0, 0, 3, 0), R"({"b":"type"})"),
        made("escaped quote outside strings", R"({\"hits":1})", 0, {}, finishText(1, 0, 0, 0, 0)),
        made("escaped backslash outside strings", R"({\\"hits":1})", 0, {}, finishText(0, 0, 1, 0, 0)),
        made("escaped brackets outside strings count", R"({\{\[\])", 0, {}, finishText(2, 0, 0, 0, 0)),
        made("below zero", "}}]]", 0, {}, finishText(-2, -2, 0, 0, 0)),
    };
    for (const char *raw : {R"(\ud83d\ude00)", R"(\uDFFF)", R"(\ud800x)", R"(\x)", R"(\u12)", R"(\u12g4)",
                            R"(a\u)", "\\\u00e9", "\xff", "\x80", "ok\xc3", "\xc0\x80", "\xed\xa0\x80",
                            "\xf4\x90\x80\x80", "\xe2\x82\\n", "\xf5\x80\x80\x80"}) {
        const std::string text = withHits(R"({"_id":")" + std::string(raw) + R"(","_source":{"a":1}})");
        all.push_back(made(std::string("bad id ") + raw, text, 1, {}, finishText(3, 1, 2, 0, 1),
                           "json to utf8 conversion error"));
    }
    for (const char *text : {
            R"({"hits":{"hits":[{"_score":"a,b}","_id":"x","_score":"a:b","_id":7,"x":"y"}]}})",
            R"({"hits":{"hits":[{"_score"],"a":5,"b":{"_id":"q"}}],"total":3}})",
            R"({"hits":{"hits":[{"_score" "_source":{"a":1},"x":2,"highlight":{"h":":"},"_score"}]}})",
            R"({"hits":{"hits":[{"_source" "highlight":{"h":1},"y":{"z":2},"_id":"a"}]}})",
            R"({"hits":{"hits":[{"highlight" "_source":{"h":1},"y":{"z":2},"_id":"a"},{"q":{}}]}})",
            R"({"hits":{"hits":[{"_source":"_id","x\u","_id":"\u","_source":{"a":1}}]}})",
            R"({"hits":{"hits":[{"_source":[{"a":[]}],"highlight":"none","_id":["b"],"_id":{"c":"d"}}]}})",
            R"({"hits":{"hits":[{"_id":"a","_source":{"a":{"b":{"c":"}"}}}}}}}}]]]]{{{{"hits":"_id")",
            R"({"hits":{"hits":[{"inner":[{"_id":"no"}],"_id":"yes"},{"_id":"2"}}},{"_id":"3"}]}})",
            R"({"hits":{"total":{"value":1},"hits":{"total":2,"hits":[{"_id":"a"}]}}})",
            R"({"_scroll_id":{"a":"b"},"hits":["hits",{"hits":"hits"}],"_scroll_id":1,"error":{"a":{"b":{"c":1}}}})",
            R"({"_shards":{"failures":[{"reason":{"type":"x","type":"type"}}]},"hits":{"hits":[{"_id":"a"}]}})",
            R"({"timed_out" : true ,"_shards":{"total":5,"successful": 3,"skipped":0,"failed":2 },"hits":{"hits":[]}})",
            R"({"hits":{"hits":[]},"x":{"total":9},"_shards":{"a":{"failed":7},"failed":[1],"total":"3","successful":1e3}})",
            R"({"a":["timed_out":true,{"_shards":{"total":4}}],"timed_out","_shards":{"total":12345678901234567890}})",
            R"({"a":"\\","b":"\\\"","c":"\\\\\"","hits":{"hits":[{"_source":{"\\":"\"}"},"_id":"\\\""}]}})",
            "{\"hits\":{\"hits\":[{\"_source\":{\"a\":\"\xff\xc3\",\"type\":\"\xc3(\"},\"_id\":\"\xc3\xa9\"}]}}",
            R"({"aVeryLongNameThatIsNoneOfOurs":1,"_scroll_idx":"a","_scroll_id":"bbbbbbbbbbbbbbbbbbbbbbbbbbbbb"})"}) {
        all.push_back({text, text, std::nullopt});
    }
    return all;
}
// clang-format on

} // namespace

const std::vector<HandMadeAnswer> &handMadeAnswers()
{
    static const std::vector<HandMadeAnswer> answers = madeAnswers();
    return answers;
}
