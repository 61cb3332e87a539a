import sys

import tallowin

with tallowin.MessageFactory(sys.argv[1]) as shop, shop.create_pay_init() as order:
    order.set_attribute("AMOUNT", "19.90")
    order.set_attribute("CURRENCY", "EUR")
    token = order.get_attribute("TOKEN")
    print(order.get_url(), flush=True)
    data, signature = (sys.stdin.readline().rstrip("\n") for _ in range(2))
    with shop.verify_pay_confirm(data, signature) as paid, tallowin.MessageObject(sys.argv[1]) as capture:
        paid.require(MSGTYPE="PayConfirm", TOKEN=token, AMOUNT="19.90", CURRENCY="EUR")
        capture.from_string(data)
        capture.capture()
        print(paid.get_attribute("RESULT"))
