#include "moatctl/bridge/matrix.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/matrix_view.hpp"
#include "moatctl/verbs/scene.hpp"

#include <algorithm>
#include <memory>
#include <ostream>
#include <utility>

namespace moatctl
{

namespace
{

using tessera::Value;

struct MatrixArguments {
    FrameOptions frame;
    ScenePlace place;
    OutputStyle style;
    bool untagged = false;
    bool exceptions = false;
};

constexpr const char* theDevice = "device";

FrameQuestion questionOf(const MatrixArguments& options)
{
    FrameQuestion question;
    question.frame = frameOf(options.frame);
    question.tagged = !options.untagged;
    question.anyPriority = options.frame.vlanPriority.empty();
    return question;
}

std::string inWords(const FrameQuestion& question)
{
    std::string text = question.tagged ? "" : "untagged";
    if (const std::string contents = contentsOf(question.frame); !contents.empty())
        text += (text.empty() ? "" : ", ") + contents;
    return text.empty() ? "every frame" : text;
}

std::string outName(const Matrix& matrix, const MatrixCell& cell)
{
    return cell.out ? matrix.ports[*cell.out] : theDevice;
}

std::string countOf(const Answered& answer)
{
    return std::to_string(answer.otherwise.size()) + (answer.complete ? "" : " or more");
}

// "partly rule 5 +3": the row that decides about the ordinary frame, and how many decide otherwise.
std::string inShort(const Scene& scene, const Answered& answer)
{
    std::string text = std::string(nameOf(answer.passage)) + " " + shortNameOf(scene, answer.ordinary.origin());
    if (!answer.otherwise.empty())
        text += " +" + countOf(answer);
    return text;
}

const char* colourOf(std::string_view cell)
{
    return cell.starts_with("open ")      ? "32"
           : cell.starts_with("closed ")  ? "31"
           : cell.starts_with("partly ")  ? "33"
           : cell.starts_with("unknown ") ? "35"
                                          : "";
}

// Ports by ports and the device.
Sheet picture(const Scene& scene, const Matrix& matrix)
{
    Sheet sheet{"matrix", "Matrix", {"FROM"}, {}, colourOf};
    std::vector<std::optional<std::size_t>> outs; // columns
    for (const MatrixCell& cell : matrix.cells) {
        if (std::ranges::find(outs, cell.out) == outs.end())
            outs.push_back(cell.out);
    }
    std::ranges::sort(outs);
    for (const auto& out : outs)
        sheet.headings.push_back(out ? matrix.ports[*out] : theDevice);
    for (std::size_t i = 0; i < matrix.cells.size();) {
        const std::size_t in = matrix.cells[i].in;
        std::vector<Cell>& row = sheet.rows.emplace_back();
        row.emplace_back(Value(matrix.ports[in]));
        for (const auto& out : outs) {
            const bool here = i < matrix.cells.size() && matrix.cells[i].in == in && matrix.cells[i].out == out;
            row.emplace_back(Value(here ? inShort(scene, matrix.answers[matrix.cells[i++].answer]) : "-"));
        }
    }
    return sheet;
}

// One way a line, for narrow terminals.
Sheet list(const Scene& scene, const Matrix& matrix)
{
    Sheet sheet{"matrix", "Matrix", {"FROM", "TO", "PASSAGE"}, {}, colourOf};
    for (const MatrixCell& cell : matrix.cells)
        sheet.rows.push_back({Value(matrix.ports[cell.in]), Value(outName(matrix, cell)),
                              Value(inShort(scene, matrix.answers[cell.answer]))});
    return sheet;
}

std::size_t widthOf(const Sheet& sheet)
{
    std::size_t width = 0;
    for (std::size_t i = 0; i < sheet.headings.size(); ++i) {
        std::size_t widest = sheet.headings[i].size();
        for (const std::vector<Cell>& row : sheet.rows)
            widest = std::max(widest, std::get<Value>(row[i]).getText().size());
        width += widest + 2;
    }
    return width;
}

// Fate, chain, number of the rule, table, Id and text.
void addDecider(std::vector<Cell>& row, const Scene& scene, const Decider& decider)
{
    const Row* origin = scene.walked().rowOf(decider.origin());
    row.emplace_back(Value(std::string(nameOf(decider.fate))));
    row.emplace_back(origin != nullptr ? Cell(Value(std::string(origin->table->name))) : Cell());
    row.emplace_back(origin != nullptr && origin->table->hasIds() ? Cell(Value(origin->id())) : Cell());
    row.emplace_back(Value(decider.chain->name));
    row.emplace_back(decider.rule != nullptr ? Cell(std::uint64_t{decider.position + 1}) : Cell());
    row.emplace_back(Value(textOf(*decider.chain, decider.rule)));
}

// For programs.
Sheet cellsSheet(const Scene& scene, const Matrix& matrix)
{
    Sheet sheet{"cells",
                "Cells",
                {"in", "out", "passage", "exceptions", "complete", "fate", "table", "id", "chain", "rule", "text"},
                {}};
    for (const MatrixCell& cell : matrix.cells) {
        const Answered& answer = matrix.answers[cell.answer];
        std::vector<Cell>& row = sheet.rows.emplace_back();
        row.emplace_back(Value(matrix.ports[cell.in]));
        row.emplace_back(cell.out ? Cell(Value(matrix.ports[*cell.out])) : Cell());
        row.emplace_back(Value(std::string(nameOf(answer.passage))));
        row.emplace_back(std::uint64_t{answer.otherwise.size()});
        row.emplace_back(Value(answer.complete ? 1 : 0));
        addDecider(row, scene, answer.ordinary);
    }
    return sheet;
}

Sheet exceptionsSheet(const Scene& scene, const Matrix& matrix, bool people)
{
    Sheet sheet{"exceptions", "Exceptions", {}, {}};
    for (const char* heading : {"in", "out", "fate", "table", "id", "chain", "rule", "text"})
        sheet.headings.emplace_back(heading);
    for (std::string& heading : sheet.headings) {
        if (people)
            std::ranges::transform(heading, heading.begin(), [](char c) { return static_cast<char>(c - 'a' + 'A'); });
    }
    for (const MatrixCell& cell : matrix.cells) {
        for (const Decider& decider : matrix.answers[cell.answer].otherwise) {
            std::vector<Cell>& row = sheet.rows.emplace_back();
            row.emplace_back(Value(matrix.ports[cell.in]));
            row.emplace_back(cell.out || people ? Cell(Value(outName(matrix, cell))) : Cell());
            addDecider(row, scene, decider);
        }
    }
    return sheet;
}

Sheet questionSheet(const Scene& scene, const FrameQuestion& question, const Matrix& matrix)
{
    return {"question",
            "Question",
            {"frames", "walked", "differs", "ordinary"},
            {{Value(inWords(question)), Value(std::string(scene.kernel ? "kernel" : "configuration")),
              scene.kernel && scene.configuration ? Cell(Value(scene.differs ? 1 : 0)) : Cell(),
              Value(contentsOf(*matrix.ordinary))}}};
}

ExitStatus matrix(Program& program, const MatrixArguments& options)
{
    const FrameQuestion question = questionOf(options);
    Scene scene;
    lookAt(scene, program, options.place);
    const MatrixWays ways{question.frame.in, question.frame.out};
    std::vector<std::string> ports = portsOf(scene, options.place.path.empty() && !isElsewhere(program), ways);
    if (ports.empty())
        throw Failure(ExitStatus::BadInput,
                      isElsewhere(program)
                          ? "no row names a port: expected --in"
                          : "no row names a port and this machine has no bridge with one: expected --in");
    const Matrix matrix = matrixOf(scene.walked(), question, std::move(ports), ways);
    if (!matrix.ordinary)
        throw Failure(ExitStatus::BadInput, "there are no such frames");

    std::vector<Sheet> sheets;
    const bool people = options.style.format == Format::Table;
    if (people) {
        program.out << "frames: " << inWords(question) << "\nthrough " << scene.name
                    << "\nthe ordinary frame: " << contentsOf(*matrix.ordinary) << "\n\n";
        sheets.push_back(picture(scene, matrix));
        if (program.terminal.width != 0 && widthOf(sheets.front()) > program.terminal.width)
            sheets.front() = list(scene, matrix);
    } else {
        if (options.style.format == Format::Json)
            sheets.push_back(questionSheet(scene, question, matrix));
        sheets.push_back(cellsSheet(scene, matrix));
    }
    if (options.exceptions)
        sheets.push_back(exceptionsSheet(scene, matrix, people));
    writeSheets(program.out, sheets, options.style, program.terminal);
    program.out.flush();
    if (scene.configuration)
        noteRefused(program.err, scene.configured);
    if (scene.differs)
        program.err << "note: the kernel's tables are not as configured (see moatctl status)\n";
    const bool known = std::ranges::all_of(
        matrix.answers, [](const Answered& answer) { return answer.passage != Passage::Unknown && answer.complete; });
    return known ? ExitStatus::Ok : ExitStatus::BadInput;
}

} // namespace

void addMatrix(const Command& root, Program& program)
{
    auto options = std::make_shared<MatrixArguments>();
    const Command command =
        root.add("matrix",
                 "Show who may talk to whom, port by port and with the device itself: whether all frames pass, none or "
                 "some, the "
                 "row that decides about an ordinary frame, and how many rows decide otherwise about others",
                 "matrix --ethertype IPv4 --proto tcp --port 80");
    command.option("--in", "PORT", "Only frames that arrive on this port", options->frame.in);
    command.option("--out", "PORT", "Only frames that leave by this port", options->frame.out);
    addFrameOptions(command, options->frame, {"frames with and without tags are meant", "any is meant"});
    command.flag("--untagged", "Only frames without a tag", options->untagged).excludes(command.find("--vlan"));
    command.flag("--exceptions", "Also list the rows that decide otherwise, way by way", options->exceptions);
    addScenePlace(command, options->place);
    addOutputOptions(command, options->style);
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return matrix(program, *options); }; });
}

} // namespace moatctl
