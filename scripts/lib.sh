# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Functions that the scripts share. Source this file; it runs nothing by itself.
#
# Packages come from the archive that this machine already uses, through an apt configuration of their
# own: own lists and an empty package status, so nothing is installed, no root is needed and the machine's
# own apt is left as it was. apt checks the signed indexes with the distribution's keyring and every
# package against them; the digests are recorded so that a later run can check what it reuses.

readonly archiveKeyring=/usr/share/keyrings/debian-archive-keyring.gpg

say() { printf '%s\n' "$*" >&2; }

fail() {
    say "${0##*/}: $*"
    exit 1
}

needCommands() {
    local command
    for command in "$@"; do
        command -v "$command" >/dev/null || fail "the command '$command' is missing. Run scripts/setup first."
    done
}

# sgdisk and mke2fs live where an ordinary user's PATH doesn't reach.
PATH="$PATH:/usr/sbin:/sbin"

cacheRoot() {
    local root="${XDG_CACHE_HOME:-$HOME/.cache}/dorvane"
    mkdir -p "$root"
    (cd "$root" && pwd -P)
}

# One run at a time works on a part of the cache; a second one waits and then finds the work done.
lockCache() {
    exec 9>"$(cacheRoot)/$1.lock"
    flock --nonblock 9 || { say "Waiting for another run of ${0##*/}."; flock 9; }
}

# The digest that names a result made from these files.
digestOf() { cat "$@" | sha256sum | cut -c1-12; }

# The archive that the machine's own apt uses for its release.
archiveURI() {
    local codename
    codename=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
    local uri
    # The names are apt's, not the shell's.
    # shellcheck disable=SC2016
    uri=$(apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
        awk -v release="$codename" '$1 == release && $2 == "main" { print $3; exit }')
    [[ -n $uri ]] || fail "apt has no source for the main component of '$codename' on this machine."
    printf '%s' "$uri"
}

# haveDebs STORE REQUEST: true when STORE holds what REQUEST asks for and every digest still fits.
haveDebs() {
    local store=$1 request=$2
    [[ -f $store/request && $(<"$store/request") == "$request" ]] || return 1
    (cd "$store" && sha256sum --check --quiet SHA256SUMS >&2) ||
        { say "A recorded download in $store has changed; downloading again."; return 1; }
}

# openArchive STORE ARCHITECTURE SUITE...: readies STORE for downloads. The last suite is preferred.
openArchive() {
    local store=$1 architecture=$2 suite uri
    shift 2
    rm -rf "$store"
    mkdir -p "$store/apt/lists/partial" "$store/apt/archives/partial"
    : >"$store/apt/status"
    uri=$(archiveURI)
    for suite in "$@"; do
        printf 'deb [signed-by=%s] %s %s main\n' "$archiveKeyring" "$uri" "$suite"
    done >"$store/apt/sources.list"
    cat >"$store/apt/apt.conf" <<CONF
#clear APT::Architectures;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Default-Release "${*: -1}";
APT::Sandbox::User "$(id -un)";
APT::Install-Recommends "false";
Dir::State "$store/apt/";
Dir::State::lists "$store/apt/lists/";
Dir::State::status "$store/apt/status";
Dir::Cache "$store/apt/";
Dir::Cache::archives "$store/apt/archives/";
Dir::Etc::sourcelist "$store/apt/sources.list";
Dir::Etc::sourceparts "/dev/null";
Dir::Etc::preferences "/dev/null";
Dir::Etc::preferencesparts "/dev/null";
Acquire::Languages "none";
Acquire::IndexTargets::deb::DEP-11::DefaultEnabled "false";
CONF
    apt-get -c "$store/apt/apt.conf" -qq update >&2 || fail "the package lists of $* could not be read."
}

downloadWithDependencies() {
    local store=$1
    shift
    apt-get -c "$store/apt/apt.conf" -qq -y --download-only install "$@" >&2
    mv "$store"/apt/archives/*.deb "$store/"
}

downloadAlone() {
    local store=$1
    shift
    (cd "$store" && apt-get -c apt/apt.conf -qq download "$@" >&2)
}

# closeArchive STORE REQUEST: records the digests of what was downloaded and drops the package lists.
closeArchive() {
    local store=$1 request=$2
    rm -rf "$store/apt"
    (cd "$store" && sha256sum -- *.deb >SHA256SUMS)
    printf '%s\n' "$request" >"$store/request"
    say "Downloaded $(wc -l <"$store/SHA256SUMS") packages, $(du -sm "$store" | cut -f1) MB, into $store."
}

unpackDebs() {
    local store=$1 tree=$2 deb
    mkdir -p "$tree"
    for deb in "$store"/*.deb; do
        dpkg-deb --extract "$deb" "$tree"
    done
}
