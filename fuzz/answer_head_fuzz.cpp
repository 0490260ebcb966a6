// The head of an HTTP answer, line by line.
#include "qvx/remote/answer_head.h"

#include <algorithm>

#include "require.h"

using namespace tarnwick::qvx;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    AnswerHead head;
    for (std::string_view text = textOf(data, size); !text.empty();) {
        const std::size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
        head.add(text.substr(0, length));
        text.remove_prefix(length);
        require(!head.begin || *head.begin < head.object.size);
        require(head.object.size < std::uint64_t{1} << 63U);
        require(head.object.tag.size() <= 256 && head.object.modified.size() <= 256);
    }
    return 0;
}
