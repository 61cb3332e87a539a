#!/usr/bin/env bash
# exports.sh promises LIBRARY JAVA        the names that must be exported, and those that must not
# exports.sh compare LIBRARY JAVA LIST    all names are those of LIST, no more and no fewer
# exports.sh keeps LIBRARY JAVA LIST      no C name of the last release is missing: those of LIST as the last tag has it, or of LIST
#                                         itself while there is no tag
# exports.sh list LIBRARY                 prints the names; so LIST is made
# JAVA tells whether the library was built with the native methods of the Java classes: ON or OFF.
set -euo pipefail
export LC_ALL=C
mode=$1 library=$2 java=${3:-ON}

# NAME@@NODE, the nodes themselves left out.
versioned=$(nm -D --defined-only "$library" | sed -nE 's/^[0-9a-f]+ . (.*@@TALLOWIN_.*)$/\1/p' | c++filt)
names=$(sed -E 's/@@TALLOWIN_[A-Z]*_?[0-9.]+$//' <<< "$versioned" | sort -u)
# C names have no parameters, scope or table.
c_part() { grep -E '^[A-Za-z0-9_]+$'; }

expected() {
  if [ "$java" = ON ]; then grep -v '^#' "$1"; else grep -vE '^(#|Java_)' "$1"; fi
}

compare() {
  local difference
  difference=$(diff -u --label "$1" --label 'exported now' <(expected "$1") - <<< "$names") || {
    printf '%s\n' "$difference"
    echo "When this is meant: $0 list $library, below the head of $1"
    return 1
  }
}

keeps() {
  local tree tag list lost
  tree=$(git -C "$(dirname "$1")" rev-parse --show-toplevel 2> /dev/null) || tree=
  tag=
  [ -z "$tree" ] || tag=$(git -C "$tree" describe --tags --abbrev=0 2> /dev/null) || tag=
  list=tests/install/$(basename "$1")
  if [ -n "$tag" ] && git -C "$tree" cat-file -e "$tag:$list" 2> /dev/null; then
    lost=$(comm -23 <(git -C "$tree" show "$tag:$list" | released | sort) <(c_part <<< "$names" | sort))
  else
    lost=$(comm -23 <(released < "$1" | sort) <(c_part <<< "$names" | sort))
  fi
  echo "compared with ${tag:-the list, because there is no tag}"
  [ -z "$lost" ] || { printf '%s\n' "$lost" 'are gone: programs in C of the last release no longer load'; return 1; }
}
released() { if [ "$java" = ON ]; then c_part; else c_part | grep -v '^Java_'; fi; }

promises() {
  local failed=0 flat class methods
  # Each face has its version node.
  if grep -vE '^[A-Za-z0-9_]+@@TALLOWIN_[0-9]+$|^.*[(: ].*@@TALLOWIN_CXX_[0-9]+\.[0-9]+\.[0-9]+$' <<< "$versioned"; then
    echo 'these have the version node of the other face'
    failed=1
  fi
  for flat in KVX_GetVersion KVX_GetErrorName KVX_GetErrorStringFromResult KVX_GetLastErrorText \
              {Create,Destroy}{ConfigurationSetup,MessageFactory,MessageObject} \
              ConfigurationSetup_{SetConfiguration,Reconfigure,SetOption,GetAttribute,SetAttribute} \
              MessageFactory_{Open,CreatePayInit,VerifyPayConfirm,CreatePayComplete,CreateRequest} \
              MessageObject_{Open,SetAttribute,GetAttribute,GetURL,Capture,Execute,FromString,ToString} \
              'UrlEncode(TbStringStream*, TbStringStream*)' \
              'HttpRequest(char const*, char const*, char const*, TbStringStream*)' \
              TbRefCounter::m_nTotalRef 'typeinfo for KVX_Exception' 'typeinfo for TBFC_Exception'; do
    grep -qxF -- "$flat" <<< "$names" || { echo "$flat: is not exported"; failed=1; }
  done
  # Classes with a table: their tables and types, for programs that derive from them or ask for their type.
  for class in TbObject TbFindable TbContainer TbFindableContainer TbString TbPtr TbVector TbFindableVector TbStack \
               TbRBTree TbTreeNode TbKeyValue TbMap TbMapItem TbMultimap TbStrMap TbStrPtr TbStrPtrMultimap \
               xmlElement xmlElementPtr xmlElementEnum xmlEnumPtr xmlParser KVX_Connection SockConnection \
               SslConnection KVX_HttpSession; do
    for kind in 'vtable for' 'typeinfo for' 'typeinfo name for'; do
      grep -qxF -- "$kind $class" <<< "$names" || { echo "$kind $class: is not exported"; failed=1; }
    done
  done
  # Classes without one: their members.
  for class in KVX_Context KVX_Message KVX_ErrorLookup KVX_TraceLog KVX_Exception KVXCIMPL_ConfigurationSetup \
               KVXCIMPL_MessageFactory KVXCIMPL_MessageObject; do
    grep -q "^$class::" <<< "$names" || { echo "$class: no member is exported"; failed=1; }
  done
  # The native methods, which the virtual machine finds by name.
  local native class_and_methods
  for class_and_methods in \
      'ConfigurationSetup nConstruct nDestruct SetConfiguration Reconfigure SetOption GetAttribute SetAttribute' \
      'MessageFactory nConstruct nDestruct Open nCreatePayInit nVerifyPayConfirm nCreatePayComplete nCreateRequest' \
      'MessageObject nConstruct nDestruct Open SetAttribute GetAttribute GetURL Capture nExecute FromString ToString'; do
    read -ra methods <<< "$class_and_methods"
    for native in "${methods[@]:1}"; do
      native=Java_kelvane_tallowin_${methods[0]}_$native
      if [ "$java" = ON ] && ! grep -qxF -- "$native" <<< "$names"; then
        echo "$native: is not exported"
        failed=1
      fi
    done
  done
  # Names that a host program may have for itself.
  if grep -E '^(is[A-Z]|get[A-Z]|TCS|WCS|mbsto|ErrorTable|xmlTable|SplitUrl|IsHttp|Base64|base64|XML|xml[A-Z][A-Za-z]*\(|ICCT|std::|__gnu|operator (new|delete)|AttributeNames|GetTimeDate|MakeHostAddr|HttpSession\(|HttpHostByName|kvx(Call|Run|Make|Create|Destroy|CopyOut|Is|Claim))' <<< "$names"; then
    echo 'these are not for export'
    failed=1
  fi
  # Everything that is no function of the flat face belongs to a class or is one of a few free functions.
  if grep -vE '^(Java_kelvane_tallowin_|KVX_|KVXCIMPL_|KvxSignature::|URL_INFO::|TB|Tb|xml[A-Za-z]+::|SockConnection::|SslConnection::|(Create|Destroy)?(ConfigurationSetup|MessageFactory|MessageObject)(_|$)|UrlEncode\(|HttpRequest\(|operator\+\(|tbIsName\(|kvxTakeSlot\(|kvxGiveSlot\(|(vtable|typeinfo|typeinfo name) for )' <<< "$names"; then
    echo 'these have not been thought of'
    failed=1
  fi
  return "$failed"
}

case $mode in
  promises) promises ;;
  compare) compare "$4" ;;
  keeps) keeps "$4" ;;
  list) printf '%s\n' "$names" ;;
esac
