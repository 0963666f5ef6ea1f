// Words split by white space, across the reader's block boundary.
#include "software/word_reader.h"

#include <string>
#include <vector>

#include "test_support.h"

namespace {

TEST(WordReader, SplitsOnBlanksAcrossBlocksAndRewinds) {
  const std::string pad(WordReader::kBlock - 3, 'a');
  const std::string big(WordReader::kBlock + 10, 'b');
  const std::size_t any = 2 * WordReader::kBlock;
  const struct {
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
  for (const auto& c : cases) {
    test_support::TempDir dir;
    test_support::spit(dir / "f", c.text);
    WordReader reader = WordReader::openFile(dir / "f", c.maxWord);
    for (const bool again : {false, true}) {
      std::vector<std::string> words;
      for (std::string w; reader.next(w);) words.push_back(w);
      EXPECT_EQ(words, c.words) << c.text.substr(0, 20) << again;
      EXPECT_EQ(reader.error(), 0);
      EXPECT_TRUE(reader.rewind());
    }
  }
}

}  // namespace
