// Words split by white space, across the reader's block boundary.
#include "software/word_reader.h"

#include <string>
#include <vector>

#include "test_support.h"

namespace {

std::vector<std::string> wordsOf(const std::string& text, std::size_t maxWord) {
  test_support::TempDir dir;
  test_support::spit(dir / "f", text);
  WordReader reader = WordReader::openFile(dir / "f", maxWord);
  EXPECT_TRUE(reader.valid());
  std::vector<std::string> out;
  for (std::string w; reader.next(w);) out.push_back(w);
  EXPECT_EQ(reader.error(), 0);
  return out;
}

TEST(WordReader, SplitsOnBlanksAcrossBlocks) {
  const std::string pad(WordReader::kBlock - 3, 'a');
  const std::string big(WordReader::kBlock + 10, 'b');
  const std::size_t any = 2 * WordReader::kBlock;
  struct Case {
    std::string text;
    std::size_t maxWord;
    std::vector<std::string> words;
  } cases[] = {
      {" \t\r\n\v\f", any, {}},
      {"one\ttwo\r\nthree", any, {"one", "two", "three"}},
      {std::string("a\0b c", 5), any, {std::string("a\0b", 3), "c"}},
      {pad + " across-the-end tail", any, {pad, "across-the-end", "tail"}},
      {pad + "xyz" + "\nnext", any, {pad + "xyz", "next"}},  // ends exactly at the block
      {big + " x", 5000, {big.substr(0, 5001), "x"}},        // cut past maxWord
  };
  for (const Case& c : cases)
    EXPECT_EQ(wordsOf(c.text, c.maxWord), c.words) << c.text.substr(0, 20);
}

TEST(WordReader, RewindReadsAgainAndRefusesWhatIsNoFile) {
  test_support::TempDir dir;
  test_support::spit(dir / "f", "x y");
  WordReader reader = WordReader::openFile(dir / "f", 10);
  std::string w;
  while (reader.next(w)) {}
  ASSERT_TRUE(reader.rewind());
  ASSERT_TRUE(reader.next(w));
  EXPECT_EQ(w, "x");
  EXPECT_FALSE(WordReader::openFile(dir.path, 10).valid());
  EXPECT_FALSE(WordReader::openFile(dir / "missing", 10).valid());
}

}  // namespace
