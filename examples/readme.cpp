// Runs what README.md shows: the functions of its later blocks, and then its main.
#include "readme_blocks.h"

namespace {

bool RunLaterBlocks() {
  PrintInTurn();
  PrintSquareOf(7);
  const Display early;
  Mixer mixer;
  mixer.SetVolume(11);
  const Display late;
  std::printf("volume %d %d\n", early.Volume(), late.Volume());
  return true;
}

[[maybe_unused]] const bool kLaterBlocksRan = RunLaterBlocks();

}  // namespace
