// Answers made by hand, good and bad, some with what a reader must make of them.
#include "handMadeAnswers.h"

namespace
{

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

HandMadeAnswer withId(const std::string &raw, const std::string &decoded)
{
    return {"id " + raw, withHits(R"({"_id":")" + raw + "\"}"),
            Outcome{"", "", 1, "", {{decoded, "", "", "", ""}}}};
}

HandMadeAnswer withBadId(const std::string &raw)
{
    return {"bad id " + raw, withHits(R"({"_id":")" + raw + R"(","_source":{"a":1}})"),
            Outcome{finishText(3, 1, 2, 0, 1), "json to utf8 conversion error", 1, "", {}}};
}

HandMadeAnswer withTotal(const std::string &raw, int total)
{
    return {"total " + raw, R"({"hits":{"hits":[],"total":)" + raw + "}}", Outcome{"", "", total, "", {}}};
}

void addGoodAnswers(std::vector<HandMadeAnswer> &all)
{
    const std::string first = R"({ "x" : {"b": [1, {"c": "}]\"{"}] } })";
    all.push_back(
        {"three hits, the later ones with less",
         R"({"took":1,"hits":{"total": 3,"max_score":1.0,"hits":[{"_index":"i","_type":"_doc","_id":"a",)"
         R"("_score":1.5,"_source":)" +
             first +
             R"(},{"_id":"b","_score": null,"_source":{"type":"t\u00e9"},)"
             R"("highlight":{"h":["<em>x</em>"]},"sort":[{"kind":1},"_id"]},{"_id":"c"}]}})",
         Outcome{"",
                 R"({"type":"t\u00e9"})",
                 3,
                 "",
                 {{"a", first, "1.5", "", ""},
                  {"b", R"({"type":"t\u00e9"})", " null", R"({"h":["<em>x</em>"]})", R"(t\u00e9)"},
                  {"c", R"({"type":"t\u00e9"})", " null", R"({"h":["<em>x</em>"]})", R"(t\u00e9)"}}}});
    all.push_back({"scroll id stays escaped", R"({"_scroll_id":"a\/b\u003d","hits":{"total":0,"hits":[]}})",
                   Outcome{"", "", 0, R"(a\/b\u003d)", {}}});
    all.push_back(
        {"highlight without source",
         withHits(R"({"_id":"a","highlight":{"t":["one"]},"_score":2},{"_id":"b","highlight":{"t":[]}})"),
         Outcome{
             "", "", 1, "", {{"a", "", "2", R"({"t":["one"]})", ""}, {"b", "", "2", R"({"t":[]})", ""}}}});
    all.push_back(
        {"null source runs on to the next object",
         withHits(R"({"_id":"a","_source":null},{"_id":"b","_source":{"x":1}})"),
         Outcome{
             "", R"({"x":1})", 1, "", {{"a", R"(":null)", "", "", ""}, {"b", R"({"x":1})", "", "", ""}}}});
    all.push_back({"empty", "", Outcome{}});
    all.push_back({"no hits at all", R"({"succeeded":true,"num_freed":0})", Outcome{}});
    all.push_back(withId("", ""));
    all.push_back(withId(R"(q\"s\/b\\\b\f\n\r\t)", "q\"s/b\\\b\f\n\r\t"));
    all.push_back(withId(R"(a\u00e9b\u20AC\u0041\u007f\uFFFF)", "a\u00e9b\u20acA\x7f\uffff"));
    all.push_back(withId("caf\u00e9 \u6f22\u5b57 \U0001F40B", "caf\u00e9 \u6f22\u5b57 \U0001F40B"));
    all.push_back(withId(R"(\ud7ff\ue000)", "\xed\x9f\xbf\xee\x80\x80"));
    all.push_back(withId(R"(nul\u0000.)", std::string("nul\0.", 5)));
    all.push_back(withTotal("17", 17));
    all.push_back(withTotal(" 12 ", 12));
    all.push_back(withTotal(R"({"value":17,"relation":"eq"})", 17));
    all.push_back(withTotal(R"({"value" : 17})", 17));
    all.push_back(withTotal("-3", -3));
    all.push_back(withTotal(R"("7")", 0));
    all.push_back(withTotal("null", 0));
    all.push_back(withTotal("4294967297", 1));
    all.push_back(withTotal("99999999999999999999", -1));
    all.push_back({"a zero total may be followed by another", R"({"hits":{"total":0,"total":2,"hits":[]}})",
                   Outcome{"", "", 2, "", {}}});
}

void addErrors(std::vector<HandMadeAnswer> &all)
{
    all.push_back({"error text", R"({"error":"no such index"})",
                   Outcome{finishText(0, 0, 0, 0, 1), R"(":"no such index"})", 0, "", {}}});
    all.push_back(
        {"error object without an inner object", R"({"error":{"type":"x","reason":"y"},"status":400})",
         Outcome{finishText(0, 0, 0, 0, 1), R"(":{"type":"x","reason":"y"},"status":400})", 0, "", {}}});
    all.push_back(
        {"error with an inner object",
         R"({"error":{"root_cause":[{"type":"x"}],"failed":[{"reason":{"type":"q","why":"w"}}]},"status":4})",
         Outcome{finishText(3, 1, 0, 0, 1), R"({"type":"q","why":"w"})", 0, "", {}}});
    all.push_back(
        {"error behind hits", R"({"hits":{"total":1,"hits":[{"_id":"a","_source":{"x":1}}]},"error":null})",
         Outcome{finishText(0, 0, 0, 0, 1), R"({"x":1}":null})", 1, "", {{"a", R"({"x":1})", "", "", ""}}}});
    all.push_back({"error inside an array is no error", R"([{"error":"x"}])", Outcome{}});
    all.push_back({"error as a value", R"({"a":"error","b":1})",
                   Outcome{finishText(0, 0, 0, 0, 1), R"(","b":1})", 0, "", {}}});
    all.push_back({"two totals", R"({"hits":{"total":1,"total":2,"hits":[]}})",
                   Outcome{finishText(2, 0, 1, 0, 1), "", 2, "", {}}});
    all.push_back({"total that ends under too many hits", R"({"hits":{"total""hits""hits":1,"a":2})",
                   Outcome{finishText(2, 0, 3, 0, 1), "", 0, "", {}}});
    for (const char *raw : {R"(\ud83d\ude00)", R"(\uDFFF)", R"(\ud800x)", R"(\x)", R"(\u12)", R"(\u12g4)",
                            R"(a\u)", "\\\u00e9", "\xff", "\x80", "ok\xc3", "\xc0\x80", "\xed\xa0\x80",
                            "\xf4\x90\x80\x80", "\xe2\x82\\n", "\xf5\x80\x80\x80"}) {
        all.push_back(withBadId(raw));
    }
}

void addBrokenAnswers(std::vector<HandMadeAnswer> &all)
{
    all.push_back({"open brace", "{", Outcome{finishText(1, 0, 0, 0, 0), "", 0, "", {}}});
    all.push_back({"cut inside a hit", R"({"hits":{"total":1,"hits":[{"_id":"a",)",
                   Outcome{finishText(3, 1, 2, 0, 0), "", 1, "", {}}});
    all.push_back({"names of ours as values", R"({"a":"hits","b":"hits"})",
                   Outcome{finishText(0, 0, 2, 0, 0), "", 0, "", {}}});
    all.push_back(
        {"type as a value", withHits(R"({"_id":"a","_source":{"b":"type"}})"),
         Outcome{
             finishText(0, 0, 0, 3, 0), R"({"b":"type"})", 1, "", {{"a", R"({"b":"type"})", "", "", ""}}}});
    all.push_back({"escaped quote outside strings", R"({\"hits":1})",
                   Outcome{finishText(1, 0, 0, 0, 0), "", 0, "", {}}});
    all.push_back({"escaped backslash outside strings", R"({\\"hits":1})",
                   Outcome{finishText(0, 0, 1, 0, 0), "", 0, "", {}}});
    all.push_back({"escaped brackets outside strings count", R"({\{\[\])",
                   Outcome{finishText(2, 0, 0, 0, 0), "", 0, "", {}}});
    all.push_back({"below zero", "}}]]", Outcome{finishText(-2, -2, 0, 0, 0), "", 0, "", {}}});
    for (
        const char *text : {
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
            R"({"a":"\\","b":"\\\"","c":"\\\\\"","hits":{"hits":[{"_source":{"\\":"\"}"},"_id":"\\\""}]}})",
            "{\"hits\":{\"hits\":[{\"_source\":{\"a\":\"\xff\xc3\",\"type\":\"\xc3(\"},\"_id\":\"\xc3\xa9\"}]"
            "}}",
            R"({"aVeryLongNameThatIsNoneOfOurs":1,"_scroll_idx":"a","_scroll_id":"bbbbbbbbbbbbbbbbbbbbbbbbbbbbb"})",
        }) {
        all.push_back({text, text, std::nullopt});
    }
}

} // namespace

const std::vector<HandMadeAnswer> &handMadeAnswers()
{
    static const std::vector<HandMadeAnswer> answers = [] {
        std::vector<HandMadeAnswer> all;
        addGoodAnswers(all);
        addErrors(all);
        addBrokenAnswers(all);
        return all;
    }();
    return answers;
}
