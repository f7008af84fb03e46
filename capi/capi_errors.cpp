// Sentences for the Win32 error codes the library and its platform layer
// report, for talvern_strerror.
#include <talvern/talvern_c.h>

#include <cstdint>

namespace {

struct Message {
  std::uint32_t code;
  const char* text;
};

constexpr Message kMessages[] = {
    {0, "success"},
    {1, "the operation is not supported"},
    {2, "the file does not exist"},
    {3, "a folder on the way does not exist"},
    {4, "too many files are open"},
    {5, "access is denied"},
    {6, "the archive or file is not open"},
    {8, "not enough memory"},
    {13, "the data is invalid: not a compressed block"},
    {14, "not enough memory"},
    {15, "the drive does not exist"},
    {19, "the medium is write-protected"},
    {21, "the drive holds no medium"},
    {23, "CRC mismatch: the data is damaged"},
    {29, "size mismatch: the data is damaged or the file changed while it was read"},
    {30, "the file cannot be read"},
    {31, "the device does not work"},
    {32, "the file is in use by another program"},
    {33, "part of the file is locked"},
    {34, "the medium is not the expected volume of this archive"},
    {38, "the archive ends before its last volume"},
    {39, "the disk is full"},
    {50, "the request is not supported"},
    {80, "the file already exists"},
    {82, "the file cannot be created"},
    {87, "an argument is not valid"},
    {110, "the file cannot be opened"},
    {111, "the name is too long"},
    {112, "the disk is full, or a volume would pass its size limit"},
    {120, "this build of the library cannot do that"},
    {122, "the destination is too small"},
    {123, "the name is not valid"},
    {131, "a position before the start of a file"},
    {132, "the archive is damaged: a record or position lies outside the volume"},
    {145, "the folder is not empty"},
    {148, "the archive is busy, or a path is empty"},
    {161, "the path is not valid"},
    {170, "the device is busy"},
    {183, "the file or folder already exists"},
    {206, "the name is too long"},
    {223, "the file is too large"},
    {267, "a folder where a file is wanted, or a file where a folder is wanted"},
    {995, "the operation was aborted"},
    {998, "invalid memory access"},
    {1005, "the medium is not formatted"},
    {1006, "the file is no longer available"},
    {1117, "input/output error"},
    {1223, "cancelled"},
    {1300, "reading security descriptors needs the security privilege"},
    {1307, "the stored owner cannot be given here"},
    {1308, "the stored group cannot be given here"},
    {1784, "the destination is too small for the block"},
    {1804, "not an archive of this format or version, or an unknown compression method"},
};

} // namespace

const char* talvern_strerror(uint32_t code) {
  for (const Message& message : kMessages)
    if (message.code == code) return message.text;
  return "an error the library has no sentence for (see the system's error codes)";
}
