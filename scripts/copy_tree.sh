# Sourced. copy_tree FOLDER: an exact copy of what git tracks or would track, for a build of another kind.
copy_tree() {
    rm -rf "$1" && mkdir -p "$1"
    git ls-files -z -co --exclude-standard | while IFS= read -r -d '' file; do
        [[ -e $file ]] && printf '%s\0' "$file"
    done | xargs -0 cp --parents -t "$1"
}
