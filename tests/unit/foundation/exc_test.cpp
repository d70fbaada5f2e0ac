#include "foundation/exc.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <thread>

#include "support/refused_memory.h"

namespace {

using exc::FormatText;

template <typename Thrown>
Thrown Catch(const std::function<void()>& action) {
  try {
    action();
  } catch (const Thrown& thrown) {
    return thrown;
  }
  throw std::logic_error("nothing was thrown");
}

std::string Serialized(const exc::exc_base_t& exception) {
  std::ostringstream stream;
  exception.Serialize(stream);
  return stream.str();
}

TEST(FormatText, PlaceholdersStandInAnyOrderAndRepeat) {
  EXPECT_EQ(FormatText("%2 before %1, %2 again", "one", std::string("two")), "two before one, two again");
}

TEST(FormatText, NumbersAreDecimalAndBoolsWords) {
  EXPECT_EQ(FormatText("%1 %2 %3 %4", -5, std::uint64_t{18446744073709551615U}, std::uint8_t{65}, true),
            "-5 18446744073709551615 65 true");
}

TEST(FormatText, PlaceholderWithoutArgumentStays) {
  EXPECT_EQ(FormatText("%1 %2 %0 %x %", "one"), "one %2 %0 %x %");
  EXPECT_EQ(FormatText("100%"), "100%");
  EXPECT_EQ(FormatText(""), "");
}

TEST(FormatText, ArgumentsAreNotExpandedAgain) {
  EXPECT_EQ(FormatText("[%1] [%2]", "%2", "%1%"), "[%2] [%1%]");
}

TEST(FormatText, DigitBehindAPlaceholderIsText) {
  EXPECT_EQ(FormatText("%10", "a"), "a0");
}

TEST(ExcBase, WithoutMessagesHasTheEmptyText) {
  const exc::exc_base_t exception;
  EXPECT_STREQ(exception.what(), "");
  EXPECT_EQ(exception.TaggedText(), "");
  EXPECT_TRUE(exception.Messages().empty());
}

TEST(ExcBase, JoinsMessagesWithLineFeedsAndTagsTheTranslated) {
  exc::exc_base_t exception("one");
  exception.AddTranslatedMessage("two");
  exception.AddMessage("three");
  EXPECT_STREQ(exception.what(), "one\ntwo\nthree");
  EXPECT_EQ(exception.TaggedText(), "one\n--tr:two\nthree");
}

TEST(ExcBase, AnEmptyFirstMessageKeepsItsLine) {
  exc::exc_base_t exception("");
  exception.AddMessage("two");
  EXPECT_STREQ(exception.what(), "\ntwo");
}

TEST(ExcBase, KnowsTheThreadThatBuiltIt) {
  EXPECT_EQ(exc::exc_base_t().ThreadId(), static_cast<std::uint32_t>(::gettid()));
  boost::shared_ptr<exc::exc_base_t> exception;
  std::uint32_t builder = 0;
  std::thread([&] {
    builder = static_cast<std::uint32_t>(::gettid());
    exception.reset(new exc::runtime_exc_t("text"));
  }).join();
  EXPECT_NE(builder, static_cast<std::uint32_t>(::gettid()));
  EXPECT_EQ(exception->Clone()->ThreadId(), builder);
}

TEST(WinSysExc, HasThreeLines) {
  const exc::win_sys_exc_t exception("Receive failed", 10054);
  EXPECT_EQ(exception.what(), platform::ErrorText(10054) + "\nReceive failed\nError code: 10054");
  ASSERT_EQ(exception.Messages().size(), 3U);
  EXPECT_FALSE(exception.Messages().front().translated);
  EXPECT_TRUE(exception.Messages().back().translated);
  EXPECT_EQ(exception.TaggedText(), platform::ErrorText(10054) + "\nReceive failed\n--tr:Error code: 10054");
  EXPECT_EQ(exception.Code(), 10054U);
}

TEST(ComExc, TellsTheResultThenTheText) {
  const exc::com_exc_t exception("Cannot query", static_cast<std::int32_t>(0x80004005));
  EXPECT_STREQ(exception.what(), "Unspecified error Error code: -2147467259\nCannot query");
  const exc::com_exc_t system("Cannot open", static_cast<std::int32_t>(0x80070005));
  EXPECT_EQ(system.what(), platform::ErrorText(5) + " Error code: -2147024891\nCannot open");
}

TEST(ChainAndThrow, AppendsAndKeepsTheDynamicType) {
  const exc::file_locked_exc_t cause("/a/b");
  const auto once = Catch<exc::file_locked_exc_t>([&] { exc::ChainAndThrow("First [%1].", cause, 1); });
  const auto twice = Catch<exc::file_locked_exc_t>(
      [&] { exc::ChainAndThrow("Second [%1] [%2].", static_cast<const std::exception&>(once), 2, "x"); });
  EXPECT_EQ(twice.Path(), "/a/b");
  EXPECT_EQ(twice.what(), std::string(cause.what()) + "\nFirst [1].\nSecond [2] [x].");
  EXPECT_EQ(cause.Messages().size(), 1U);
}

TEST(ChainAndThrow, EveryClassStaysWhatItIs) {
  EXPECT_EQ(Catch<exc::win_sys_exc_t>([] { exc::ChainAndThrow("t", exc::win_sys_exc_t("c", 5)); }).Code(), 5U);
  EXPECT_EQ(Catch<exc::com_exc_t>([] { exc::ChainAndThrow("t", exc::com_exc_t("c", 7)); }).Result(), 7);
  EXPECT_STREQ(Catch<exc::socket_timeout_exc_t>([] {
                 exc::ChainAndThrow("t", exc::socket_timeout_exc_t(std::string("c")));
               }).what(),
               "c\nt");
  EXPECT_STREQ(Catch<exc::term_exc_t>([] { exc::ChainAndThrow("t", exc::term_exc_t()); }).what(), "t");
}

TEST(ChainAndThrow, ForeignExceptionBecomesARuntimeExc) {
  const auto chained =
      Catch<exc::runtime_exc_t>([] { exc::ChainAndThrow("Level.", std::out_of_range("cause %1"), "unused"); });
  EXPECT_STREQ(chained.what(), "cause %1\nLevel.");
}

class SilentException : public std::exception {
 public:
  const char* what() const noexcept override { return nullptr; }
};

TEST(CloneException, NullTextIsEmpty) {
  EXPECT_STREQ(exc::CloneException(SilentException())->what(), "");
}

TEST(CloneException, WithoutMemoryThereIsAnotherOne) {
  const exc::runtime_exc_t failure(std::string("a failure"));
  {
    const test::RefusedRequest refusal(0);
    const boost::shared_ptr<exc::exc_base_t> copy = exc::CloneIfPossible(failure);
    EXPECT_TRUE(refusal.HasHappened());
    EXPECT_STREQ(copy->what(), "Out of memory.");
  }
  EXPECT_STREQ(exc::CloneIfPossible(failure)->what(), "a failure");
}

TEST(CloneException, ClonesAndRethrowsTheDynamicType) {
  const boost::shared_ptr<exc::exc_base_t> copy = exc::CloneException(exc::win_sys_exc_t("c", 112));
  EXPECT_EQ(copy->GetKind(), "win_sys_exc_t");
  EXPECT_EQ(Catch<exc::win_sys_exc_t>([&] { copy->Rethrow(); }).Code(), 112U);
}

TEST(Kind, EachClassStandsUnderTheRootAlone) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, exc::exc_base_t>));
  const boost::shared_ptr<exc::exc_base_t> classes[] = {
      exc::win_sys_exc_t("t", 5).Clone(), exc::com_exc_t("t", 1).Clone(), exc::socket_timeout_exc_t("t").Clone(),
      exc::file_locked_exc_t("p").Clone(), exc::term_exc_t().Clone()};
  for (const auto& exception : classes)
    EXPECT_EQ(dynamic_cast<const exc::runtime_exc_t*>(exception.get()), nullptr) << exception->GetKind();
  EXPECT_STREQ(exc::socket_timeout_exc_t("after %1 sec", 5).what(), "after 5 sec");
}

TEST(Kind, IsTheClassName) {
  EXPECT_EQ(exc::exc_base_t().GetKind(), "exc_base_t");
  EXPECT_EQ(exc::runtime_exc_t("t").GetKind(), "runtime_exc_t");
  EXPECT_EQ(exc::com_exc_t("t", 1).GetKind(), "com_exc_t");
  EXPECT_EQ(exc::socket_timeout_exc_t(std::string("t")).GetKind(), "socket_timeout_exc_t");
  EXPECT_EQ(exc::file_locked_exc_t("p").GetKind(), "file_locked_exc_t");
  EXPECT_EQ(exc::term_exc_t().GetKind(), "term_exc_t");
}

TEST(Serialize, LayoutIsLittleEndian) {
  exc::exc_base_t exception("ab");
  exception.AddTranslatedMessage("c");
  exception.AddParameter("n", "vw");
  EXPECT_EQ(Serialized(exception), std::string("\2\0\0\0"
                                               "\2\0\0\0ab\0"
                                               "\1\0\0\0c\1"
                                               "\1\0\0\0"
                                               "\1\0\0\0n"
                                               "\2\0\0\0vw",
                                               32));
}

template <typename T>
void ExpectRoundTrip(const T& original, T copy) {
  std::istringstream stream(Serialized(original));
  copy.Deserialize(stream);
  EXPECT_EQ(copy.Messages(), original.Messages());
  EXPECT_STREQ(copy.what(), original.what());
  EXPECT_EQ(copy.TaggedText(), original.TaggedText());
  EXPECT_EQ(copy.Parameters(), original.Parameters());
  EXPECT_EQ(Serialized(copy), Serialized(original));
  EXPECT_EQ(stream.peek(), std::char_traits<char>::eof());
}

TEST(Serialize, RoundTripsEachClass) {
  exc::runtime_exc_t runtime("text");
  runtime.AddParameter("name", "value");
  ExpectRoundTrip(runtime, exc::runtime_exc_t("other"));
  ExpectRoundTrip(exc::win_sys_exc_t("text", 10054), exc::win_sys_exc_t("other", 1));
  ExpectRoundTrip(exc::com_exc_t("text", -5), exc::com_exc_t("other", 1));
  ExpectRoundTrip(exc::file_locked_exc_t("/a"), exc::file_locked_exc_t("/b"));
  ExpectRoundTrip(exc::exc_base_t(std::string(2500000, 'x')), exc::exc_base_t());
}

TEST(Deserialize, EveryCutIsRefusedAndChangesNothing) {
  exc::win_sys_exc_t original("text", 10054);
  original.AddParameter("name", "value");
  const std::string whole = Serialized(original);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    exc::win_sys_exc_t target("target", 7);
    const std::string before = target.what();
    std::istringstream stream(whole.substr(0, length));
    EXPECT_THROW(target.Deserialize(stream), exc::runtime_exc_t) << length;
    EXPECT_EQ(target.what(), before);
    EXPECT_EQ(target.Code(), 7U);
  }
}

TEST(Deserialize, AnnouncedLengthCostsNothingBeforeItsBytesCame) {
  exc::exc_base_t target;
  std::istringstream longText(
      std::string("\1\0\0\0\xFF\xFF\xFF\xFF"
                  "ab",
                  10));
  EXPECT_THROW(target.Deserialize(longText), exc::runtime_exc_t);
  std::istringstream manyTexts(std::string("\xFF\xFF\xFF\xFF", 4));
  EXPECT_THROW(target.Deserialize(manyTexts), exc::runtime_exc_t);
}

}  // namespace
