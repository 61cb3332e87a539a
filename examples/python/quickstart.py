"""A payment in twenty lines, between the two markers. The rest stands for code that a shop already has.

    python3 quickstart.py DIRECTORY SERVICE

DIRECTORY   the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
            Every start sets up again and makes a new merchant key; a shop does this once.
SERVICE     set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto

The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per line,
percent-decoded, as a web framework returns them.
"""

import sys

import tallowin


def set_up(directory, service):
    """A merchant does this once per account."""
    with tallowin.ConfigurationSetup(directory) as setup:
        setup.reconfigure(service, "demo", "demo")


def send_shopper_to(url):
    """A shop redirects the browser to `url`; its return page then receives DATA and SIGNATURE."""
    print(url, flush=True)
    return sys.stdin.readline().rstrip("\n"), sys.stdin.readline().rstrip("\n")


def sell(directory):
    # [quickstart]
    with tallowin.MessageFactory(directory) as shop:
        with shop.create_pay_init() as order:
            order.set_attribute("AMOUNT", "19.90")
            order.set_attribute("CURRENCY", "EUR")
            token = order.get_attribute("TOKEN")
            data, signature = send_shopper_to(order.get_url())  # the shopper returns with DATA and SIGNATURE
        with shop.verify_pay_confirm(data, signature) as paid:
            paid.require(MSGTYPE="PayConfirm", RESULT="authorised", TOKEN=token, AMOUNT="19.90", CURRENCY="EUR")
    with tallowin.MessageObject(directory) as capture:
        capture.from_string(data)
        capture.capture()
    print("The payment is captured.")
    # [/quickstart]


def main():
    if len(sys.argv) != 3:
        sys.exit(f"usage: {sys.argv[0]} DIRECTORY SERVICE")
    set_up(sys.argv[1], sys.argv[2])
    try:
        sell(sys.argv[1])
    except tallowin.MismatchError as mismatch:
        sys.exit(f"not paid: {mismatch}")


if __name__ == "__main__":
    main()
