# Sourced by the scripts, so that all of them answer alike, each in one line: `--help` with what they
# do, an argument that they do not know with what they would take.

# usage LINE ARGUMENT ...: remembers the script's usage; prints it and ends when the first argument
# asks for it.
usage() {
    usage_line=$1
    case ${2-} in
        -h | --help)
            echo "usage: $usage_line"
            exit 0
            ;;
    esac
}

# refuse WHAT: ends with the exit code of a usage error.
refuse() {
    echo "${usage_line%% *}: $1; usage: $usage_line" >&2
    exit 2
}

# no_more_arguments ARGUMENT ...: refuses what a script has no use for.
no_more_arguments() { [ $# -eq 0 ] || refuse "unknown argument '$1'"; }

# require_preset NAME: refuses what is no preset that can be built.
require_preset() {
    grep -qF "{\"name\": \"$1\", \"configurePreset\": " CMakePresets.json || refuse "unknown preset '$1'"
}
