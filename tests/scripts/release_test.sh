#!/usr/bin/env bash
# release_test.sh TREE: releases made in a scratch clone of TREE, as it is now, and releases that are refused.
set -euo pipefail
export LC_ALL=C SOURCE_DATE_EPOCH=1700000000
unset CC CXX
command -v abidw >/dev/null || { echo 'release_test.sh: needs abigail-tools (scripts/setup packages)'; exit 77; }
tree=$1
[ -e "$tree/.git" ] || { echo 'release_test.sh: this tree is no clone'; exit 77; }
[ "$(uname -m)" = "$(cat "$tree/packaging/abi/processor")" ] || { echo 'release_test.sh: the C face is recorded for another processor'; exit 77; }
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
failed=0
complain() {
  printf '%s\n' "$1"
  failed=1
}

# A clone with the files as they are, committed.
git clone -q --no-tags "$tree" "$work/clone"
(cd "$tree" && git ls-files -z --deleted) | (cd "$work/clone" && xargs -0 -r rm -f --)
(cd "$tree" && git ls-files -z --cached --others --exclude-standard) | (cd "$tree" && xargs -0 sh -c \
  'for file in "$@"; do [ ! -e "$file" ] && [ ! -L "$file" ] || cp -P --parents --preserve=mode -- "$file" "$0"; done' "$work/clone")
cd "$work/clone"
git config user.name tester
git config user.email tester@localhost
commit() { git add -A && git commit -q --allow-empty -m "test: $1"; }
commit 'the tree as it is'
version=$(sed -nE 's/.*TALLOWIN_VERSION_STRING "(.*)"/\1/p' include/tallowin/version.h)
IFS=. read -r major minor patch <<<"$version"
patched=$major.$minor.$((patch + 1)) extended=$major.$((minor + 1)).0 other=$((major + 1)).0.0

# refused TEXT ARGUMENT...: the release is refused with TEXT and changes nothing.
refused() {
  local text=$1 before
  shift
  before=$(git rev-parse HEAD; git tag; git status --porcelain)
  if scripts/release "$@" >"$work/said" 2>&1 || ! grep -qF -- "$text" "$work/said"; then
    complain "scripts/release $*: not refused with '$text', but: $(cat "$work/said")"
  fi
  [ "$before" = "$(git rev-parse HEAD; git tag; git status --porcelain)" ] || complain "scripts/release $*: refused and changed something"
}
made() { scripts/release "$@" >"$work/said" 2>&1 || { cat "$work/said"; echo "scripts/release $* fails"; exit 1; }; }

# Before the first release.
refused 'scripts/release --next VERSION' # without an argument, the help
refused 'VERSION' 1.2
refused "version.h names $version" "$extended"
refused 'there is no release yet' --next "$extended"
refused 'there is no tag' --archives v9.9.9
echo 'unfinished' >>README.md
refused 'uncommitted changes' "$version"
git checkout -q README.md
sed -i "s/^## $version (not released yet)/## $version (2001-01-01)/" CHANGELOG.md
commit 'a changelog without a section for the release'
refused 'the first heading of CHANGELOG.md' "$version"
git reset -q --hard HEAD^

# The release.
made "$version"
[ "$(git describe)" = "v$version" ] || complain "the last commit is not tagged v$version"
grep -qx "## $version (2023-11-14)" CHANGELOG.md || complain 'CHANGELOG.md has no date'
[ -z "$(git status --porcelain)" ] || complain 'the release leaves changes'
scripts/abi | grep . && complain 'the record of the C face is not that of the release'
dist=build/dist/$version name=tallowin-$version
(cd "$dist" && sha256sum --quiet --strict -c SHA256SUMS) || complain 'the checksums are wrong'
[ "$(cd "$dist" && ls | paste -sd ' ')" = "SHA256SUMS $name.spdx.json $name.tar.gz $name.tar.xz" ] || complain "files: $(ls "$dist")"
cmp <(gunzip -c "$dist/$name.tar.gz") <(xz -dc "$dist/$name.tar.xz") || complain 'the archives differ'
cp -r "$dist" "$work/first"
made --archives "v$version"
diff -r "$dist" "$work/first" || complain 'the same tag gives other bytes'
refused 'is there already' "$version"

# The archive is the tree, and builds without git.
tar -xf "$dist/$name.tar.xz" -C "$work"
diff <(git ls-files | sort) <(cd "$work/$name" && find . ! -type d | sed 's|^\./||' | sort) || complain 'the archive is not the tree'
cmake -S "$work/$name" --preset library -B "$work/configured" >"$work/log" 2>&1 || { cat "$work/log"; complain 'the archive does not configure'; }

# The bill of materials: what SPDX 2.3 asks for, every file with its hash, no reference into nothing.
python3 -B - "$dist/$name.spdx.json" "$work/$name" <<'END' || complain 'the bill of materials is wrong'
import hashlib, json, pathlib, sys
document, tree = json.loads(pathlib.Path(sys.argv[1]).read_text()), pathlib.Path(sys.argv[2])
assert (document["spdxVersion"], document["dataLicense"], document["SPDXID"]) == ("SPDX-2.3", "CC0-1.0", "SPDXRef-DOCUMENT")
assert document["name"] and document["documentNamespace"].startswith("urn:uuid:")
assert document["creationInfo"]["creators"] and document["creationInfo"]["created"].endswith("Z")
elements = document["packages"] + document["files"]
ids = [element["SPDXID"] for element in elements]
assert len(set(ids)) == len(ids) and all(one.replace(".", "").replace("-", "").isalnum() for one in ids)
for package in document["packages"]:
    assert package["name"] and package["downloadLocation"] and "filesAnalyzed" in package
    assert ("packageVerificationCode" in package) == package["filesAnalyzed"]
known = {*ids, "SPDXRef-DOCUMENT"}
for relation in document["relationships"]:
    assert {relation["spdxElementId"], relation["relatedSpdxElement"]} <= known, relation
files = {entry["fileName"]: {one["algorithm"]: one["checksumValue"] for one in entry["checksums"]} for entry in document["files"]}
found = {"./" + str(path.relative_to(tree)): path.read_bytes() for path in tree.rglob("*") if path.is_file() and not path.is_symlink()}
assert set(files) == set(found), set(files) ^ set(found)
for name, content in found.items():
    assert files[name] == {"SHA1": hashlib.sha1(content).hexdigest(), "SHA256": hashlib.sha256(content).hexdigest()}, name
code = hashlib.sha1("".join(sorted(one["SHA1"] for one in files.values())).encode()).hexdigest()
assert document["packages"][0]["packageVerificationCode"]["packageVerificationCodeValue"] == code
edges = {(one["spdxElementId"], one["relationshipType"], one["relatedSpdxElement"]) for one in document["relationships"]}
assert ("SPDXRef-Package-libtallowin", "DEPENDS_ON", "SPDXRef-Package-libssl-dev") in edges
assert ("SPDXRef-Package-cmake", "BUILD_TOOL_OF", "SPDXRef-Package-libtallowin") in edges
assert ("SPDXRef-Package-libtallowin", "DEPENDS_ON", "SPDXRef-Package-libsqlite3-dev") not in edges
END

# The next one. The third number is enough as long as the C face stays.
refused 'does not follow' --next "$version"
made --next "$patched"
[ "$(sed -nE 's/.*MAJOR ([0-9]+)$/\1/p; s/.*MINOR ([0-9]+)$/\1/p; s/.*PATCH ([0-9]+)$/\1/p' include/tallowin/version.h | paste -sd .)" = "$patched" ] ||
  complain 'the numbers of version.h are not those of its text'
[ "$(grep '^## ' CHANGELOG.md | head -n 2 | paste -sd '|')" = "## $patched (not released yet)|## $version (2023-11-14)" ] || complain 'CHANGELOG.md has no new section'
cmake -S . --preset library -B "$work/next" >"$work/log" 2>&1 || { cat "$work/log"; complain 'the next version does not configure'; }
grep -q "PACKAGE_VERSION \"$patched\"" "$work/next/tallowinConfigVersion.cmake" || complain 'the packages have the old version'

# More in the C face than at the last release: the record without a constant stands for that.
sed -i '/^KVX_E_CRYPTO /d' packaging/abi/codes.txt
commit 'the last release had less'
refused 'the second number must grow' "$patched"
git reset -q --hard HEAD^
# Less: a record with one more.
sed -i 's/^KVX_OK /KVX_E_ZZZ 0x80049999\n&/' packaging/abi/codes.txt
commit 'the last release had more'
refused 'the first number must grow' "$patched"
git reset -q --hard HEAD^
# Then the coming release gets another number.
sed -i '/^KVX_E_CRYPTO /d' packaging/abi/codes.txt
commit 'the last release had less'
made --next "$extended"
[ "$(grep '^## ' CHANGELOG.md | head -n 2 | paste -sd '|')" = "## $extended (not released yet)|## $version (2023-11-14)" ] ||
  complain 'CHANGELOG.md keeps the number that was given up'
made "$extended"
grep -q '^KVX_E_CRYPTO ' packaging/abi/codes.txt || complain 'the record is not renewed'
made --next "$other"
sed -i 's/^KVX_OK /KVX_E_ZZZ 0x80049999\n&/' packaging/abi/codes.txt
commit 'the last release had more'
made "$other"
[ "$(git tag | paste -sd ' ')" = "v$version v$extended v$other" ] || complain "tags: $(git tag)"
exit "$failed"
