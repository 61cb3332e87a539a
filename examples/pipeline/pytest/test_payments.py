"""What a shop tests first: paid, declined, too late, and a confirmation with another amount."""

import urllib.request

import pytest
import tallowin


class Order:
    """The part of a shop that is tested; yours stands here."""

    def __init__(self, directory):
        self.shop = tallowin.MessageFactory(directory)
        with self.shop.create_pay_init() as message:
            message.set_attribute("AMOUNT", "19.90")
            message.set_attribute("CURRENCY", "EUR")
            message.set_attribute("ORDERID", "A-17")
            self.token = message.get_attribute("TOKEN")
            self.url = message.get_url()

    def check(self, data, signature, result="authorised"):
        with self.shop.verify_pay_confirm(data, signature) as message:
            message.require(MSGTYPE="PayConfirm", RESULT=result, TOKEN=self.token, AMOUNT="19.90", CURRENCY="EUR")


@pytest.fixture
def order(merchant):
    order = Order(merchant)
    yield order
    order.shop.close()


def test_a_paid_order(account, order):
    order.check(*account.decide(order.url, order.token, "pay"))
    assert account.payment(order.token)["state"] == "authorised"


def test_a_declined_order(account, order):
    confirmation = account.decide(order.url, order.token, "decline")
    order.check(*confirmation, result="declined")
    with pytest.raises(tallowin.MismatchError):
        order.check(*confirmation)


def test_an_order_that_is_not_paid_in_time(account, order):
    with urllib.request.urlopen(order.url, timeout=30):
        pass
    account.step_clock(7200)
    assert account.payment(order.token)["state"] == "expired"


def test_a_confirmation_with_another_amount(account, order):
    account.fault("wrong-amount", exchange="decision")
    with pytest.raises(tallowin.MismatchError, match="AMOUNT"):
        order.check(*account.decide(order.url, order.token, "pay"))
