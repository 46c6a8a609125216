// Replays the corpus of every fuzz target and a fixed number of seeded mutations of it. A broken
// property aborts with the target's name and the input on standard error.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#define RYX_FUZZ_REPLAY  // the table alone, without the entry points of libFuzzer
#include "tests/fuzz/fuzz.cpp"

namespace ryx::fuzz {
namespace {

using Input = std::vector<uint8_t>;

constexpr int kMutations = 20000;
constexpr unsigned kSeed = 1;

// In a block of exactly its size, so that the address sanitizer sees a read past the end.
void runExactly(const FuzzTarget& target, const Input& input) {
  auto block = std::make_unique<uint8_t[]>(input.size());
  std::copy(input.begin(), input.end(), block.get());
  runTarget(target, block.get(), input.size());
}

std::vector<Input> corpusOf(const char* name) {
  std::vector<Input> corpus;
  std::vector<std::filesystem::path> files;
  std::filesystem::path directory = std::string(RYX_SOURCE_DIR "/tests/fuzz/corpus/") + name;
  if (!std::filesystem::is_directory(directory)) return corpus;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return corpus;
}

// One small change: bytes set, inserted or removed, numbers grown, a piece of another input.
void mutate(std::mt19937& random, const std::vector<Input>& corpus, Input* input) {
  static constexpr char kAlphabet[] = "0123456789abcdefABF:./-%\0 \n\xff\"";
  auto symbol = static_cast<uint8_t>(kAlphabet[random() % (sizeof kAlphabet - 1)]);
  size_t at = random() % (input->size() + 1);
  switch (random() % 6) {
    case 0:
      if (at < input->size()) (*input)[at] = symbol;
      break;
    case 1:
      if (at < input->size()) (*input)[at] ^= static_cast<uint8_t>(1u << random() % 8);
      break;
    case 2:
      input->insert(input->begin() + static_cast<ptrdiff_t>(at), symbol);
      break;
    case 3:
      if (at < input->size()) input->erase(input->begin() + static_cast<ptrdiff_t>(at));
      break;
    case 4:
      input->resize(at);
      break;
    default: {
      const Input& other = corpus[random() % corpus.size()];
      size_t from = random() % (other.size() + 1);
      size_t count = std::min<size_t>(random() % 16, other.size() - from);
      input->insert(input->begin() + static_cast<ptrdiff_t>(at),
                    other.begin() + static_cast<ptrdiff_t>(from),
                    other.begin() + static_cast<ptrdiff_t>(from + count));
    }
  }
}

class FuzzReplay : public testing::TestWithParam<FuzzTarget> {};

TEST_P(FuzzReplay, CorpusAndMutations) {
  std::vector<Input> corpus = corpusOf(GetParam().name);
  ASSERT_FALSE(corpus.empty()) << "tests/fuzz/corpus/" << GetParam().name << " holds no input";
  runExactly(GetParam(), {});
  for (const Input& input : corpus) runExactly(GetParam(), input);
  std::mt19937 random(kSeed);
  for (int i = 0; i < kMutations; ++i) {
    Input input = corpus[random() % corpus.size()];
    for (int n = 1 + random() % 3; n > 0; --n) mutate(random, corpus, &input);
    runExactly(GetParam(), input);
  }
}

std::string nameOf(const testing::TestParamInfo<FuzzTarget>& info) {
  std::string name = info.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, testing::ValuesIn(kFuzzTargets), nameOf);

}  // namespace
}  // namespace ryx::fuzz
