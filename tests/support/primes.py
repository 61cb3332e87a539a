"""Prime numbers, for programs that do RSA by whole numbers."""


def is_probable_prime(number, witnesses):
    """Miller and Rabin's test of an odd number above 3, with each of `witnesses`, numbers from 2 to `number` - 2."""
    odd, twos = number - 1, 0
    while odd % 2 == 0:
        odd, twos = odd // 2, twos + 1
    for witness in witnesses:
        power = pow(witness, odd, number)
        if power in (1, number - 1):
            continue
        for _ in range(twos - 1):
            power = power * power % number
            if power == number - 1:
                break
        else:
            return False
    return True
