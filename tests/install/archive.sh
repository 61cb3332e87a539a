#!/usr/bin/env bash
# archive.sh ARCHIVE: the static archive holds all functions and tables, those with generic names too.
set -euo pipefail
export LC_ALL=C
names=$(nm -C --defined-only "$1" 2> /dev/null | sed -nE 's/^[0-9a-f]+ [A-Za-z] //p' | sed -E 's/\(.*//' | sort -u)
failed=0
for name in KVX_GetErrorStringFromResult CreateMessageObject MessageFactory_CreatePayInit ConfigurationSetup_Reconfigure \
            UrlEncode HttpRequest HttpSession SplitUrl IsHttp Base64Encode base64_table MakeHostAddr HttpHostByName \
            isSpace isAlnum getSymbol getTabEntry xmlTable XMLEncode XMLDecode xmlAtoi xmlQuerySubElement \
            xmlGetAttributeEx xmlSetAttributeEx TCSLEN TCSCPY TCSNCPY TCSNCMP WCSToMBS mbstoSTRING ErrorTable \
            AttributeNames GetTimeDate ICCT_GenerateKeys ICCT_Signature ICCT_Verify ICCT_CryptDigest \
            ICCT_DecryptDigest TbString::append TbRBTree::put TbMultimap::remove KVX_Context::Reconfigure; do
  grep -qxF -- "$name" <<< "$names" || { echo "$name: is not in the archive"; failed=1; }
done
exit "$failed"
