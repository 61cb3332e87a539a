#!/usr/bin/env bash
# javafiles.sh PREFIX VERSION WORK: the installed Java files: names, links, the layout of a Maven repository, the contents of the jars
# of the sources and of the reference. Maven reads the POM where it is installed.
set -euo pipefail
export LC_ALL=C
prefix=$1 version=$2 work=$3
failed=0
complain() {
  printf '%s\n' "$1"
  failed=1
}

repository=$prefix/share/maven-repo/kelvane/tallowin/tallowin/$version
diff -u --label wanted --label installed - <(cd "$prefix" && find share/java share/maven-repo ! -type d | sort) <<EOF || complain 'other files'
share/java/tallowin-$version.jar
share/java/tallowin.jar
${repository#"$prefix"/}/tallowin-$version-javadoc.jar
${repository#"$prefix"/}/tallowin-$version-sources.jar
${repository#"$prefix"/}/tallowin-$version.jar
${repository#"$prefix"/}/tallowin-$version.pom
EOF
for link in "$prefix/share/java/tallowin.jar" "$repository/tallowin-$version.jar"; do
  [ "$link" -ef "$prefix/share/java/tallowin-$version.jar" ] || complain "$link is another jar"
  case $(readlink "$link") in /* | '') complain "$link is not a relative link" ;; esac
done

names() { python3 -c 'import sys, zipfile; print("\n".join(zipfile.ZipFile(sys.argv[1]).namelist()))' "$1"; }
classes=$(names "$prefix/share/java/tallowin.jar" | grep -E '\.class$' | grep -v '\$' | sed 's/\.class$//' | sort)
sources=$(names "$repository/tallowin-$version-sources.jar" | grep -E '\.java$' | sed 's/\.java$//' | sort)
diff -u --label classes --label sources <(printf '%s\n' "$classes") <(grep -v '/package-info$' <<<"$sources") ||
  complain 'the sources are not those of the classes'
pages=$(names "$repository/tallowin-$version-javadoc.jar")
for page in index.html kelvane.tallowin/kelvane/tallowin/{ConfigurationSetup,KVXException,MessageFactory,MessageObject,ResultCode}.html \
            kelvane.tallowin/kelvane/tallowin/ledger/{Confirmation,Ledger,LedgerException,LedgerOrder,Outcome,Reason,Renewal,RenewalException}.html; do
  grep -qxF "$page" <<<"$pages" || complain "the reference lacks $page"
done

# The POM names what its place says, and no address.
pom=$repository/tallowin-$version.pom
for element in "<groupId>kelvane.tallowin</groupId>" "<artifactId>tallowin</artifactId>" "<version>$version</version>"; do
  grep -qF "$element" "$pom" || complain "the POM lacks $element"
done
if grep -n '://' "$pom"; then complain 'the POM names an address'; fi
if command -v mvn >/dev/null; then
  rm -rf "$work"
  mkdir -p "$work"
  mvn --offline --batch-mode --strict-checksums -Dmaven.repo.local="$work/repository" --file "$pom" validate >"$work/log" 2>&1 || {
    cat "$work/log"
    complain 'Maven refuses the POM'
  }
  if grep WARN "$work/log"; then complain 'Maven warns'; fi
else
  echo 'Maven is not installed: the POM was read by this test alone'
fi
exit "$failed"
