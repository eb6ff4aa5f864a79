// orvex: the command line of Orvex Project, for batch work and scripting.
#include "CliCommon.h"
#include "common/OrvexException.h"
#include "common/Saveandload.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <set>
#include <sstream>
#include <streambuf>

#include <unistd.h>

namespace orvexcli {

std::string DescribeError(const std::exception& e) {
  const auto* orvex = dynamic_cast<const OrvexException*>(&e);
  if (!orvex) return e.what();
  // The oldest entry of the history is the cause; the wrappers around it say only where it passed.
  if (const auto* history = orvex->ExceptionHistory(); history && !history->empty()) return history->back();
  return orvex->Message();
}

std::string FormatNumber(double value) {
  char buffer[64];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  if (error != std::errc()) return "nan";
  return std::string(buffer, end);
}

void SetCommandAction(CLI::App* command, CliContext& ctx, std::function<int()> action, bool withRuntime) {
  command->callback([&ctx, action = std::move(action), withRuntime] {
    ctx.Action = action;
    ctx.NeedsRuntime = withRuntime;
  });
}

namespace {

// A number option's check with the range in a person's words ("must be 0 or more").
CLI::Validator AtLeast(double low, const std::string& words) {
  return CLI::Validator(
      [low, words](std::string& text) -> std::string {
        double value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size())
          return "needs a number, not '" + text + "'";
        return value >= low ? std::string() : words;
      },
      "", "");
}

CLI::Validator Above(double low, const std::string& words) {
  return CLI::Validator(
      [low, words](std::string& text) -> std::string {
        double value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size())
          return "needs a number, not '" + text + "'";
        return value > low ? std::string() : words;
      },
      "", "");
}

} // namespace

CLI::Validator NonNegative() {
  return AtLeast(0, "must be 0 or more");
}
CLI::Validator Positive() {
  return Above(0, "must be more than 0");
}

void AddGlobalOptions(CLI::App& app, CliContext& ctx) {
  auto* yes = app.add_flag("--yes", ctx.AnswerYes, "Answer every question of the program with Yes/Ok");
  auto* no = app.add_flag("--no", ctx.AnswerNo, "Answer every question of the program with No/Cancel");
  yes->excludes(no);
  app.add_option("--threads", ctx.Threads, "Calculation threads (default: all processors)")
      ->check(NonNegative());
  app.add_option("--memory", ctx.Memory, "Memory strategy for this run: heap or mmf")
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            return text == "heap" || text == "mmf" ? std::string()
                                                   : "must be heap or mmf, not '" + text + "'";
          },
          "", ""));
  app.add_option("--mmf-dir", ctx.MmfDir, "Folder of the memory-mapped files for this run");
  app.add_option("--mmf-size-gb", ctx.MmfSizeGB, "Size limit of the memory-mapped files in GB")
      ->check(Positive());
  app.add_option("--map-size-mb", ctx.MapSizeMB, "Size of the mapped views in MB")->check(Positive());
}

namespace {

const std::set<std::string> kGlobalOptionsWithValue = {"--threads", "--memory", "--mmf-dir", "--mmf-size-gb",
                                                       "--map-size-mb"};

// The first word of the command line that is neither an option nor an option's value.
std::string FirstWord(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("-", 0) == 0) {
      if (kGlobalOptionsWithValue.count(word) && i + 1 < argc) ++i;
      continue;
    }
    return word;
  }
  return {};
}

// One line in this program's words for what the parser refused.
std::string DescribeParseError(const CLI::ParseError& e, const CLI::App& app, int argc, char** argv) {
  std::string text = e.what();
  if (app.get_subcommands().empty()) {
    const std::string word = FirstWord(argc, argv);
    bool known = false;
    for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; }))
      known = known || command->get_name() == word;
    if (!word.empty() && !known) return "unknown command '" + word + "'";
    if (word.empty() && dynamic_cast<const CLI::RequiredError*>(&e)) return "a command is required";
  }
  if (dynamic_cast<const CLI::ExtrasError*>(&e)) {
    // The parser lists the unexpected words last one first.
    const size_t colon = text.find(": ");
    std::istringstream words(colon == std::string::npos ? text : text.substr(colon + 2));
    std::string word, first;
    while (words >> word) first = word;
    return (first.rfind("-", 0) == 0 ? "unknown option '" : "unexpected argument '") + first + "'";
  }
  if (dynamic_cast<const CLI::ValidationError*>(&e)) {
    // "--threads: must be 0 or more" reads better without the colon.
    const size_t colon = text.find(": ");
    if (colon != std::string::npos) text = text.substr(0, colon) + " " + text.substr(colon + 2);
  }
  // A sentence begins in lower case inside the line; a name like "FILE" stays.
  if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])))
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// Standard output through the file layer's writer, so that a failed write keeps the system's reason (a full
// device, a reader that has gone) for the one line that reports it.
class TOutputBuffer : public std::streambuf {
public:
  TOutputBuffer() { setp(FBuffer, FBuffer + sizeof FBuffer); }
  bool Failed() const { return FFailed; }
  /// The system's reason of the failed write.
  int Error() const { return FError; }

protected:
  int_type overflow(int_type c) override {
    if (!Drain()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }
  int sync() override { return Drain() ? 0 : -1; }

private:
  bool Drain() {
    const int64_t size = pptr() - pbase();
    if (size > 0 && !FFailed && !WriteAllBytes(STDOUT_FILENO, pbase(), size)) {
      FFailed = true;
      FError = LastFileError();
    }
    setp(FBuffer, FBuffer + sizeof FBuffer);
    return !FFailed;
  }
  char FBuffer[65536];
  bool FFailed = false;
  int FError = 0;
};

TOutputBuffer gOutput;

// Output that could not be written is a failure of the command, not a success.
bool OutputWritten() {
  std::cout.flush();
  return !gOutput.Failed() && !std::cout.fail();
}

} // namespace

} // namespace orvexcli

int main(int argc, char** argv) {
  using namespace orvexcli;
  // A reader that has gone (a closed pipe) makes the write fail instead of ending the process unseen.
  std::signal(SIGPIPE, SIG_IGN);
  // Restored when main ends, before the buffer itself goes.
  struct TRestoreOutput {
    std::streambuf* Previous = std::cout.rdbuf(&gOutput);
    ~TRestoreOutput() {
      std::cout.flush();
      std::cout.rdbuf(Previous);
    }
  } restoreOutput;
  CLI::App app{"orvex - the command line of Orvex Project", "orvex"};
  app.set_version_flag("--version", std::string("orvex ") + ORVEX_VERSION_STRING);
  app.require_subcommand(1);
  app.fallthrough();

  CliContext ctx;
  AddGlobalOptions(app, ctx);
  AddTagCommands(app, ctx);
  AddProjectCommands(app, ctx);
  AddFitCommands(app, ctx);
  AddDataCommands(app, ctx);
  AddAxisCommands(app, ctx);
  AddDemoCommands(app, ctx);
  AddPathsCommands(app, ctx);
  AddBitmapCommands(app, ctx);
  AddConfigCommands(app, ctx);
  AddViewerCommands(app, ctx);
  AddToolCommands(app, ctx);
  AddMaskCommands(app, ctx);

  // The application goes down on every path, after the command's projects are gone.
  struct TStopAtExit {
    CliContext& Context;
    ~TStopAtExit() { StopRuntime(Context); }
  } stopAtExit{ctx};
  int exitCode = kExitOk;
  try {
    app.parse(argc, argv);
    if (ctx.Action) {
      if (ctx.NeedsRuntime) StartRuntime(ctx);
      exitCode = ctx.Action();
    }
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cout.flush();
    std::cerr << DescribeParseError(e, app, argc, argv) << "; see orvex --help\n";
    return kExitUsage;
  } catch (const CliError& e) {
    OutputWritten();
    std::cerr << e.what() << "\n";
    return e.ExitCodeValue();
  } catch (const std::bad_alloc&) {
    OutputWritten();
    std::cerr << "not enough memory; the memory-mapped strategy (--memory mmf) keeps large data on disk\n";
    return kExitFailure;
  } catch (const std::exception& e) {
    OutputWritten();
    std::cerr << DescribeError(e) << "\n";
    return kExitFailure;
  }
  if (!OutputWritten()) {
    const int error = gOutput.Error();
    std::cerr << "cannot write the output: " << FileErrorReason(error != 0 ? error : EIO) << "\n";
    return kExitFailure;
  }
  return exitCode;
}
