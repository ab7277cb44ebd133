// vfsctl completion: scripts that complete its command line in shells, made from the options as they are declared.
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "commands.h"
#include "errors.h"

namespace {

struct option_words {
    std::vector<std::string> names; // with their hyphens; none: an argument
    std::string description;
    bool takes_value = false;
    std::vector<std::string> values; // empty: any, a file's name perhaps
};

// The set in "TEXT:{one,two}", as the library describes an option that allows certain words alone.
std::vector<std::string> allowed_words(const std::string &type)
{
    const size_t from = type.find('{'), to = type.find('}', from);
    if (from == std::string::npos || to == std::string::npos) return {};
    return CLI::detail::split(type.substr(from + 1, to - from - 1), ',');
}

std::vector<option_words> options_of(const CLI::App &command)
{
    std::vector<option_words> all;
    for (const CLI::Option *option : command.get_options()) {
        option_words words;
        for (const std::string &name : option->get_snames()) words.names.push_back("-" + name);
        for (const std::string &name : option->get_lnames()) words.names.push_back("--" + name);
        words.description = option->get_description();
        words.takes_value = option->get_items_expected_max() > 0;
        words.values = allowed_words(option->get_type_name());
        all.push_back(words);
    }
    return all;
}

std::vector<std::string> names_of(const std::vector<option_words> &options)
{
    std::vector<std::string> names;
    for (const option_words &option : options) names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

std::string bash_values(const option_words &option)
{
    const std::string patterns = fmt::format("{}", fmt::join(option.names, " | "));
    if (option.values.empty()) return fmt::format("        {}) return ;;\n", patterns);
    return fmt::format("        {}) values='{}' ;;\n", patterns, fmt::join(option.values, " "));
}

std::string bash_case(const CLI::App &command)
{
    const std::vector<option_words> options = options_of(command);
    std::string values, previous;
    for (const option_words &option : options) {
        if (option.names.empty() && !option.values.empty()) values = fmt::format("{}", fmt::join(option.values, " "));
        if (!option.names.empty() && option.takes_value) previous += bash_values(option);
    }
    std::string text = fmt::format("    {})\n        options='{}' values='{}'\n", command.get_name(),
                                   fmt::join(names_of(options), " "), values);
    if (!previous.empty()) text += fmt::format("        case $previous in\n{}        esac\n", previous);
    return text + "        ;;\n";
}

// What follows an option with a value is one of its words, or a file's name.
std::string bash_script(const CLI::App &program)
{
    std::vector<std::string> commands;
    std::string cases;
    for (const CLI::App *command : program.get_subcommands({})) {
        commands.push_back(command->get_name());
        cases += bash_case(*command);
    }
    return fmt::format(R"(# Completion of vfsctl's command line for bash; written by 'vfsctl completion bash'.
_vfsctl()
{{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}} options= values=
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W '{} {}' -- "$current")
        return
    fi
    case ${{COMP_WORDS[1]}} in
{}    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ -n $values ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
    fi
}}
complete -o bashdefault -o default -F _vfsctl vfsctl
)",
                       fmt::join(commands, " "), fmt::join(names_of(options_of(program)), " "), cases);
}

// Inside '...' and where brackets and colons mean something.
std::string zsh_text(const std::string &text)
{
    std::string quoted;
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
            continue;
        }
        if (c == '[' || c == ']' || c == ':' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted;
}

std::string zsh_option(const option_words &option)
{
    std::string lines;
    const std::string value = !option.takes_value     ? ""
                              : option.values.empty() ? ":value:_files"
                                                      : fmt::format(":value:({})", fmt::join(option.values, " "));
    for (const std::string &name : option.names)
        lines += fmt::format("            '*{}[{}]{}' \\\n", name, zsh_text(option.description), value);
    return lines;
}

std::string zsh_script(const CLI::App &program)
{
    std::string commands, cases;
    for (const CLI::App *command : program.get_subcommands({})) {
        commands += fmt::format("        '{}:{}'\n", command->get_name(), zsh_text(command->get_description()));
        cases += fmt::format("    {})\n        _arguments \\\n", command->get_name());
        std::string argument = "_files";
        for (const option_words &option : options_of(*command)) {
            cases += zsh_option(option);
            if (option.names.empty() && !option.values.empty())
                argument = fmt::format("({})", fmt::join(option.values, " "));
        }
        cases += fmt::format("            '*:file:{}'\n        ;;\n", argument);
    }
    return fmt::format(R"(#compdef vfsctl
# Completion of vfsctl's command line for zsh; written by 'vfsctl completion zsh'.
_vfsctl()
{{
    local -a commands
    commands=(
{}    )
    if ((CURRENT == 2)); then
        _describe command commands
        return
    fi
    shift words
    ((CURRENT -= 1))
    case $words[1] in
{}    esac
}}
_vfsctl "$@"
)",
                       commands, cases);
}

} // namespace

command_body declare_completion(CLI::App &command)
{
    auto shell = std::make_shared<std::string>();
    command.add_option("shell", *shell, "bash or zsh")->required()->check(CLI::IsMember({"bash", "zsh"}));
    return [shell, program = command.get_parent()] {
        fmt::print("{}", *shell == "bash" ? bash_script(*program) : zsh_script(*program));
        return static_cast<int>(exit_good);
    };
}
