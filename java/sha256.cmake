# Writes the SHA-256 of FILE, 64 hexadecimal digits, to FILE.sha256.
file(SHA256 "${FILE}" hash)
file(WRITE "${FILE}.sha256" "${hash}\n")
