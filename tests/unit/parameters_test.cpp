// Typed parameters: what a host's sequence reads as, the errors of a wrong type, and the sequence given back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "authentication/ostrel/Parameters.h"
#include "authentication/ostrel/SSOException.h"
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

SWCharString W(const char16_t* p) { return SWCharString(reinterpret_cast<const ostrel_char*>(p)); }
std::u16string Text(const ostrel_char* p) { return reinterpret_cast<const char16_t*>(p); }

// A host's sequence: separate elements in its own memory.
struct HostSequence {
    HostSequence(std::initializer_list<std::tuple<std::u16string, uint32_t, std::u16string>> i_rows) {
        for (const auto& [key, type, value] : i_rows) {
            texts.push_back(key), texts.push_back(value), elements.push_back(ParasSeq{nullptr, type, 0, nullptr, nullptr});
        }
        for (size_t i = 0; i < elements.size(); ++i) {
            elements[i].key = reinterpret_cast<ostrel_char*>(texts[2 * i].data());
            elements[i].value = reinterpret_cast<ostrel_char*>(texts[2 * i + 1].data());
            elements[i].next = i + 1 < elements.size() ? &elements[i + 1] : nullptr;
        }
    }
    std::vector<std::u16string> texts;
    std::vector<ParasSeq> elements;
};

// What a typed read gives: "absent", the value, or "throws <status>/<message>".
template <class T>
std::string Read(const Parameters& i_params, const char16_t* i_pKey, T o_value) {
    try {
        if (!i_params.GetParameter(W(i_pKey), o_value)) return "absent";
    } catch (const SSOException& e) {
        return "throws " + std::to_string(e.GetCode()) + "/" + std::to_string(e.GetMessageId());
    }
    if constexpr (std::is_same_v<T, SWCharString>) {
        return ToAnsiString(o_value.c_str()).c_str();
    } else {
        return std::to_string(o_value);
    }
}

}  // namespace

TEST(ParametersTest, EachKeyReadsAsItsTypeAndNothingElse) {
    ostrel_test::TraceCapture capture;
    // The type word is read by its low byte; the last occurrence of a key wins.
    HostSequence seq{{u"K", 2, u"42"},   {u"K", 1, u"text"}, {u"A", 257, u"low byte 1"}, {u"N", 2, u"-9223372036854775808"},
                     {u"X", 2, u"12x"},  {u"B1", 3, u"1"},   {u"B0", 3, u"0"},           {u"BM", 3, u"-1"},
                     {u"BT", 3, u"true"}, {u"Z", 0, u"zero"}, {u"Q", 200, u"odd"}};
    const Parameters params(seq.elements.data());
    EXPECT_EQ(params.GetCount(), 10u);
    const std::string kWrong = "throws 100/42038";
    const struct {
        const char16_t* key;
        std::string asString, asNumber, asBool;
    } rows[] = {
        {u"K", "text", "throws 113/42038", kWrong},
        {u"A", "low byte 1", "throws 113/42038", kWrong},
        {u"N", kWrong, "-9223372036854775808", kWrong},
        {u"X", kWrong, "throws 100/42254", kWrong},  // the right type, not a number
        {u"B1", kWrong, "throws 113/42038", "1"},
        {u"B0", kWrong, "throws 113/42038", "0"},
        {u"BM", kWrong, "throws 113/42038", "0"},  // accepted on purpose, and false
        {u"BT", kWrong, "throws 113/42038", "throws 100/42254"},
        {u"Z", kWrong, "throws 113/42038", kWrong},  // unknown types are kept and refused by every read
        {u"Q", kWrong, "throws 113/42038", kWrong},
        {u"missing", "absent", "absent", "absent"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(ToAnsiString(W(row.key).c_str()).c_str());
        EXPECT_EQ(Read(params, row.key, SWCharString(OSTREL_T("kept"))), row.asString);
        EXPECT_EQ(Read(params, row.key, int64_t{7}), row.asNumber);
        EXPECT_EQ(Read(params, row.key, true), row.asBool);
    }
    EXPECT_TRUE(capture.has("Could not get a boolean from true for BT"));
    EXPECT_TRUE(capture.hasLineEndingWith("ssoplugin: SequenceParser::Pop() -- key=N, value=-9223372036854775808, type=2 "));
    SWCharString ssKept(OSTREL_T("kept"));  // a read that fails leaves the output alone
    int64_t nKept = 5;
    EXPECT_THROW(params.GetParameter(W(u"X"), nKept), SSOException);
    EXPECT_FALSE(params.GetParameter(W(u"missing"), ssKept));
    EXPECT_TRUE(nKept == 5 && ssKept == W(u"kept"));

    SISet<SWCharString> required;
    EXPECT_TRUE(params.CheckParameters(required));
    required.Add(W(u"spn"));
    EXPECT_FALSE(params.CheckParameters(required));
    required.RemoveAll();
    required.Add(W(u"Q"));  // presence only: a wrong type still counts
    EXPECT_TRUE(params.CheckParameters(required));
}

TEST(ParametersTest, GivenBackAsOneBlockInKeyOrderWithTypesAsTheyCame) {
    HostSequence seq{{u"zeta", 1, u"last"}, {u"odd", 200, u"x"}};
    Parameters params(seq.elements.data());
    params.AddParameter(W(u"alpha"), int64_t{-5});
    params.AddParameter(W(u"mid"), false);
    ostrel_test::TraceCapture capture;
    ParasSeq stale{};
    ParasSeq* pOut = &stale;  // reported, and overwritten
    params.ToParasSeq(&pOut);
    EXPECT_TRUE(capture.has("Overwriting non-NULL data!  Possible leak!"));
    ASSERT_NE(pOut, &stale);
    const std::vector<std::tuple<std::u16string, uint32_t, std::u16string>> expected = {
        {u"alpha", 2, u"-5"}, {u"mid", 3, u"0"}, {u"odd", 200, u"x"}, {u"zeta", 1, u"last"}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(std::make_tuple(Text(pOut[i].key), pOut[i].type, Text(pOut[i].value)), expected[i]) << i;
        EXPECT_EQ(pOut[i].next, i + 1 < expected.size() ? &pOut[i + 1] : nullptr) << i;
    }
    FreeParasSeq(pOut);
    ParasSeq* pNone = nullptr;
    Parameters().ToParasSeq(&pNone);
    EXPECT_EQ(pNone, nullptr);
    EXPECT_THROW(params.ToParasSeq(nullptr), SSOException);
}
