// Answers of an agent: no answer ends the console, and a text that is no answer counts as an invalid
// response.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Recorders.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "support/FakeEndpoint.h"

namespace rpctest {
namespace {

/// The outcome of a call with this answer: the exception's code, or 0 for a result. why: its message.
int codeOf(const std::string& answer, std::string* why = nullptr) {
  testsupport::FakeEndpoint endpoint;
  endpoint.answer = [&](const std::string&) { return answer; };
  jsonrpchelper::IJsonRpcClientHelper client(&endpoint, lunet::kAgentGuid, 10990, 20991, 30000);
  int code = 0;
  try {
    client.CallMethod("getBusList", Json::Value());
  } catch (const jsonrpc::JsonRpcException& e) {
    code = e.GetCode();
    EXPECT_NE(std::string(e.what()), "");
    if (why != nullptr) {
      *why = e.GetMessage();
    }
  }
  EXPECT_EQ(endpoint.buffersOut, 0);
  return code;
}

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}
std::string withResult(const std::string& result) {
  return R"({"jsonrpc":"2.0","id":1,"result":)" + result + "}";
}
std::string withError(const std::string& error) {
  return R"({"jsonrpc":"2.0","id":1,"error":)" + error + "}";
}

struct AnswerCase {
  const char* name;
  std::string answer;
};
void PrintTo(const AnswerCase& row, std::ostream* out) {
  *out << row.name;
}

class NoAnswer : public testing::TestWithParam<AnswerCase> {};

TEST_P(NoAnswer, IsAnInvalidResponse) {
  std::string why;
  EXPECT_EQ(codeOf(GetParam().answer, &why), jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE);
  EXPECT_THAT(why, testing::MatchesRegex(".*: (the answer|its error) .*"))
      << "found before the library reads it";
}

INSTANTIATE_TEST_SUITE_P(
    Answers, NoAnswer,
    testing::Values(
        AnswerCase{"Empty", ""}, AnswerCase{"NoJson", "agent says no"},
        AnswerCase{"HalfAnObject", R"({"id":1,)"}, AnswerCase{"BinaryZeros", std::string(100, '\0')},
        AnswerCase{"Null", "null"}, AnswerCase{"Number", "5"}, AnswerCase{"Text", R"("text")"},
        AnswerCase{"Array", "[]"}, AnswerCase{"ArrayOfAnswers", "[" + withResult("[]") + "]"},
        AnswerCase{"EmptyObject", "{}"}, AnswerCase{"NoVersion", R"({"id":1,"result":[]})"},
        AnswerCase{"OldVersion", R"({"jsonrpc":"1.0","id":1,"result":[]})"},
        AnswerCase{"VersionThatIsANumber", R"({"jsonrpc":2.0,"id":1,"result":[]})"},
        AnswerCase{"NoId", R"({"jsonrpc":"2.0","result":[]})"},
        AnswerCase{"AnotherId", R"({"jsonrpc":"2.0","id":2,"result":[]})"},
        AnswerCase{"IdAsText", R"({"jsonrpc":"2.0","id":"1","result":[]})"},
        AnswerCase{"IdThatIsAnObject", R"({"jsonrpc":"2.0","id":{},"result":[]})"},
        AnswerCase{"ErrorOfAnotherId", R"({"jsonrpc":"2.0","id":2,"error":{"code":1,"message":"m"}})"},
        AnswerCase{"NullIdWithAResult", R"({"jsonrpc":"2.0","id":null,"result":[]})"},
        AnswerCase{"NeitherResultNorError", R"({"jsonrpc":"2.0","id":1})"},
        AnswerCase{"BothResultAndError",
                   R"({"jsonrpc":"2.0","id":1,"result":[],"error":{"code":1,"message":""}})"},
        AnswerCase{"ErrorThatIsANumber", withError("5")}, AnswerCase{"ErrorThatIsNull", withError("null")},
        AnswerCase{"ErrorThatIsAnArray", withError("[]")},
        AnswerCase{"ErrorWithoutCode", withError(R"({"message":"m"})")},
        AnswerCase{"ErrorWithoutMessage", withError(R"({"code":1})")},
        AnswerCase{"ErrorCodeAsText", withError(R"({"code":"1","message":"m"})")},
        AnswerCase{"ErrorCodeOfElevenDigits", withError(R"({"code":99999999999,"message":"m"})")},
        AnswerCase{"ErrorCodeThatIsAFraction", withError(R"({"code":1.5,"message":"m"})")},
        AnswerCase{"ErrorCodeThatIsHuge", withError(R"({"code":1e300,"message":"m"})")},
        AnswerCase{"ErrorMessageThatIsAnObject", withError(R"({"code":1,"message":{}})")},
        AnswerCase{"ErrorMessageThatIsNull", withError(R"({"code":1,"message":null})")},
        AnswerCase{"NestedTwoThousandDeep", withResult(nested(2000))},
        AnswerCase{"NestedAMillionDeep", withResult(nested(1000000))},
        AnswerCase{"ErrorDataNestedDeep",
                   withError(R"({"code":1,"message":"m","data":)" + nested(2000) + "}")},
        AnswerCase{"OnlyOpeningBrackets", std::string(1000000, '[')}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

TEST(Answers, WithAResultAreAccepted) {
  EXPECT_EQ(codeOf(withResult("[]")), 0);
}

TEST(Answers, NestedAsDeepAsTheLibraryReadsAreAccepted) {
  EXPECT_EQ(codeOf(withResult(nested(900))), 0);
}

TEST(Answers, WithAnErrorGiveItsCode) {
  EXPECT_EQ(codeOf(withError(R"({"code":-32601,"message":"m"})")), -32601);
  EXPECT_EQ(codeOf(withError(R"({"code":2147483647,"message":"m","data":[{"a":1}]})")), 2147483647);
}

TEST(Answers, WithAnErrorMayCarryANullId) {
  EXPECT_EQ(codeOf(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"m"}})"), -32700);
}

TEST(Answers, MayHoldZerosAndBytesThatAreNotUtf8InTheirTexts) {
  EXPECT_EQ(codeOf(withResult("\"a\\u0000b\"")), 0);
  EXPECT_EQ(codeOf(withResult("\"\xff\xfe\"")), 0);
  EXPECT_EQ(codeOf(withError("{\"code\":3,\"message\":\"\xff\"}")), 3);
}

}  // namespace
}  // namespace rpctest
