# Writes the SHA-256 of FILE, 64 hexadecimal digits, beside it.
file(SHA256 "${FILE}" hash)
file(WRITE "${FILE}.sha256" "${hash}\n")
