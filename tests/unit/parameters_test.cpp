#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "authentication/ostrel/Parameters.h"
#include "authentication/ostrel/SSOException.h"
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

// A host's sequence, built the way a host would: separate elements, its own memory.
class HostSequence {
public:
    HostSequence& add(const std::u16string& i_key, uint32_t i_nType, const std::u16string& i_value) {
        m_texts.push_back(i_key);
        m_texts.push_back(i_value);
        m_types.push_back(i_nType);
        m_elements.push_back(ParasSeq{});
        return *this;
    }
    const ParasSeq* get() {
        // Link only once all strings are in place: the vectors no longer move.
        for (size_t i = 0; i < m_elements.size(); ++i) {
            m_elements[i].key = const_cast<ostrel_char*>(reinterpret_cast<const ostrel_char*>(m_texts[2 * i].c_str()));
            m_elements[i].value =
                const_cast<ostrel_char*>(reinterpret_cast<const ostrel_char*>(m_texts[2 * i + 1].c_str()));
            m_elements[i].type = m_types[i];
            m_elements[i].next = i + 1 < m_elements.size() ? &m_elements[i + 1] : nullptr;
        }
        return m_elements.empty() ? nullptr : m_elements.data();
    }
private:
    std::vector<std::u16string> m_texts;
    std::vector<ParasSeq> m_elements;
    std::vector<uint32_t> m_types;
};

HostSequence& Add(HostSequence& s, const std::u16string& k, uint32_t t, const std::u16string& v) {
    return s.add(k, t, v);
}

std::u16string Text(const ostrel_char* p) { return std::u16string(reinterpret_cast<const char16_t*>(p)); }

SWCharString W(const char16_t* p) { return SWCharString(reinterpret_cast<const ostrel_char*>(p)); }

}  // namespace

TEST(ParametersTest, LastOccurrenceOfAKeyWinsInNameTypeAndValue) {
    HostSequence seq;
    Add(seq, u"K", 2, u"42");
    Add(seq, u"K", 1, u"text");
    Parameters params(seq.get());
    EXPECT_EQ(params.GetCount(), 1u);
    SWCharString ssValue;
    EXPECT_TRUE(params.GetParameter(W(u"K"), ssValue));
    EXPECT_EQ(ssValue, W(u"text"));
    int64_t nValue = 0;
    EXPECT_THROW(params.GetParameter(W(u"K"), nValue), SSOException);
}

TEST(ParametersTest, TypeWordIsReadByItsLowByte) {
    HostSequence seq;
    Add(seq, u"A", 257, u"as string");
    Add(seq, u"B", 0, u"zero");
    Add(seq, u"C", 200, u"odd");
    Parameters params(seq.get());
    SWCharString ssValue;
    EXPECT_TRUE(params.GetParameter(W(u"A"), ssValue));
    EXPECT_EQ(ssValue, W(u"as string"));
    // Unknown type bytes are kept, refused by every typed read, and given back as they came.
    for (const char16_t* key : {u"B", u"C"}) {
        bool bValue = false;
        int64_t nValue = 0;
        EXPECT_THROW(params.GetParameter(W(key), ssValue), SSOException);
        EXPECT_THROW(params.GetParameter(W(key), bValue), SSOException);
        EXPECT_THROW(params.GetParameter(W(key), nValue), SSOException);
    }
    ParasSeq* pOut = nullptr;
    params.ToParasSeq(&pOut);
    ASSERT_NE(pOut, nullptr);
    EXPECT_EQ(pOut[0].type, 1u);
    EXPECT_EQ(pOut[1].type, 0u);
    EXPECT_EQ(pOut[2].type, 200u);
    EXPECT_EQ(Text(pOut[2].value), u"odd");
    FreeParasSeq(pOut);
}

TEST(ParametersTest, BooleansAcceptOneZeroAndMinusOne) {
    HostSequence seq;
    Add(seq, u"one", 3, u"1");
    Add(seq, u"zero", 3, u"0");
    Add(seq, u"minus", 3, u"-1");
    Add(seq, u"word", 3, u"true");
    Parameters params(seq.get());
    bool bValue = false;
    EXPECT_TRUE(params.GetParameter(W(u"one"), bValue));
    EXPECT_TRUE(bValue);
    EXPECT_TRUE(params.GetParameter(W(u"zero"), bValue));
    EXPECT_FALSE(bValue);
    bValue = true;
    EXPECT_TRUE(params.GetParameter(W(u"minus"), bValue));
    EXPECT_FALSE(bValue);

    ostrel_test::TraceCapture capture;
    try {
        params.GetParameter(W(u"word"), bValue);
        FAIL() << "\"true\" must not read as a boolean";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
    }
    EXPECT_TRUE(capture.has("Could not get a boolean from true for word"));
}

TEST(ParametersTest, AbsentMeansDefaultWrongTypeMeansException) {
    HostSequence seq;
    Add(seq, u"S", 1, u"x");
    Add(seq, u"N", 2, u"12x");
    Parameters params(seq.get());

    SWCharString ssValue(OSTREL_T("kept"));
    int64_t nValue = 7;
    bool bValue = true;
    EXPECT_FALSE(params.GetParameter(W(u"missing"), ssValue));
    EXPECT_FALSE(params.GetParameter(W(u"missing"), nValue));
    EXPECT_FALSE(params.GetParameter(W(u"missing"), bValue));
    EXPECT_EQ(ssValue, W(u"kept"));
    EXPECT_EQ(nValue, 7);
    EXPECT_TRUE(bValue);

    // A wrong type says which key; the number read answers with the external status.
    try {
        params.GetParameter(W(u"S"), nValue);
        FAIL();
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 113u);
        EXPECT_EQ(e.GetMessageId(), 42038u);
        ASSERT_EQ(e.GetSubstStrings().GetSize(), 1);
        EXPECT_EQ(e.GetSubstStrings()[0], W(u"S"));
    }
    try {
        params.GetParameter(W(u"S"), bValue);
        FAIL();
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
        EXPECT_EQ(e.GetMessageId(), 42038u);
    }
    try {
        params.GetParameter(W(u"N"), nValue);  // right type, not a number
        FAIL();
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), 100u);
        EXPECT_EQ(e.GetMessageId(), 42254u);
    }
    EXPECT_EQ(nValue, 7);
}

TEST(ParametersTest, NumbersKeepTheirFullRange) {
    Parameters params;
    params.AddParameter(W(u"min"), int64_t{INT64_MIN});
    params.AddParameter(W(u"flag"), true);
    int64_t nValue = 0;
    bool bValue = false;
    EXPECT_TRUE(params.GetParameter(W(u"min"), nValue));
    EXPECT_EQ(nValue, INT64_MIN);
    EXPECT_TRUE(params.GetParameter(W(u"flag"), bValue));
    EXPECT_TRUE(bValue);
}

TEST(ParametersTest, OutputIsOneBlockInAscendingKeyOrder) {
    Parameters params;
    params.AddParameter(W(u"zeta"), W(u"last"));
    params.AddParameter(W(u"alpha"), int64_t{-5});
    params.AddParameter(W(u"mid"), false);
    ParasSeq* pOut = nullptr;
    params.ToParasSeq(&pOut);
    ASSERT_NE(pOut, nullptr);
    EXPECT_EQ(pOut[0].next, &pOut[1]);
    EXPECT_EQ(pOut[1].next, &pOut[2]);
    EXPECT_EQ(pOut[2].next, nullptr);
    EXPECT_EQ(Text(pOut[0].key), u"alpha");
    EXPECT_EQ(Text(pOut[0].value), u"-5");
    EXPECT_EQ(pOut[0].type, 2u);
    EXPECT_EQ(Text(pOut[1].key), u"mid");
    EXPECT_EQ(Text(pOut[1].value), u"0");
    EXPECT_EQ(pOut[1].type, 3u);
    EXPECT_EQ(Text(pOut[2].key), u"zeta");
    FreeParasSeq(pOut);

    Parameters empty;
    ParasSeq* pNone = nullptr;
    empty.ToParasSeq(&pNone);
    EXPECT_EQ(pNone, nullptr);
    FreeParasSeq(nullptr);
}

TEST(ParametersTest, ToParasSeqReportsAStaleOutputAndRefusesNull) {
    Parameters params;
    params.AddParameter(W(u"k"), W(u"v"));
    ostrel_test::TraceCapture capture;
    ParasSeq stale{};
    ParasSeq* pOut = &stale;
    params.ToParasSeq(&pOut);
    EXPECT_TRUE(capture.has("Overwriting non-NULL data!  Possible leak!"));
    ASSERT_NE(pOut, &stale);
    FreeParasSeq(pOut);
    EXPECT_THROW(params.ToParasSeq(nullptr), SSOException);
}

TEST(ParametersTest, CheckParametersTestsPresenceOnly) {
    Parameters params;
    SISet<SWCharString> required;
    EXPECT_TRUE(params.CheckParameters(required));
    required.Add(W(u"spn"));
    EXPECT_FALSE(params.CheckParameters(required));
    params.AddParameter(W(u"spn"), int64_t{1});  // wrong type still counts as present
    EXPECT_TRUE(params.CheckParameters(required));
}

TEST(ParametersTest, ParserTracesEachElementWithTrailingBlank) {
    HostSequence seq;
    Add(seq, u"key", 2, u"9");
    ostrel_test::TraceCapture capture;
    Parameters params(seq.get());
    EXPECT_TRUE(capture.hasLineEndingWith("ssoplugin: SequenceParser::Pop() -- key=key, value=9, type=2 "));
    SequenceParser empty(nullptr);
    SWCharString k(OSTREL_T("unchanged"));
    SWCharString v;
    unsigned char t = 9;
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_FALSE(empty.Pop(k, v, t));
    EXPECT_EQ(k, W(u"unchanged"));
    EXPECT_EQ(t, 9);
}
