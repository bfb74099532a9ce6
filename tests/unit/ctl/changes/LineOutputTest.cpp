#include "ctl/changes/LineOutput.h"

#include "core/FileDescriptor.h"
#include "support/TemporaryFolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

/// While it lives, standard output goes to a file.
class RedirectedOutput {
public:
    explicit RedirectedOutput(const std::string& path)
        : before(dup(STDOUT_FILENO))
    {
        const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        dup2(file.get(), STDOUT_FILENO);
    }
    ~RedirectedOutput() { dup2(before.get(), STDOUT_FILENO); }
    RedirectedOutput(const RedirectedOutput&) = delete;
    RedirectedOutput& operator=(const RedirectedOutput&) = delete;

private:
    const FileDescriptor before;
};

class LineOutputTest : public ::testing::Test {
protected:
    /// What standard output has got when the output is complete. Nothing is reported while it is redirected.
    std::string finished()
    {
        {
            const RedirectedOutput redirected(folder.path("output"));
            output.finish();
        }
        return folder.readFile("output");
    }
    void send()
    {
        const RedirectedOutput redirected(folder.path("output"));
        output.send();
    }

    const TemporaryFolder folder;
    LineOutput output;
    /// More than is kept in memory.
    const std::string large = std::string(9 << 20, 'x') + "\n";
};

TEST_F(LineOutputTest, linesThatAreTakenBackAreNotWritten)
{
    output.add("one\n");
    const std::size_t mark = output.mark();
    output.add("two\n");
    output.add("three\n");
    output.takeBack(mark);
    output.add("four\n");
    EXPECT_EQ("one\nfour\n", finished());
}

TEST_F(LineOutputTest, linesInTheTemporaryFileAreTakenBackAsWell)
{
    output.add("one\n");
    const std::size_t mark = output.mark();
    output.add(large);
    output.add("two\n");
    output.takeBack(mark);
    EXPECT_EQ(mark, output.mark());
    output.add("three\n");
    EXPECT_EQ("one\nthree\n", finished());
}

TEST_F(LineOutputTest, linesBehindTheTemporaryFileAreTakenBackAlone)
{
    output.add(large);
    output.add("one\n");
    const std::size_t mark = output.mark();
    output.add("two\n");
    output.takeBack(mark);
    EXPECT_TRUE(finished() == large + "one\n");
}

TEST_F(LineOutputTest, whatIsWrittenStays)
{
    const std::size_t start = output.mark();
    output.add("one\n");
    send();
    const std::size_t mark = output.mark();
    output.add("two\n");
    output.takeBack(mark);
    output.add("three\n");
    output.takeBack(start);
    EXPECT_EQ("one\nthree\n", finished());
}

} // namespace
