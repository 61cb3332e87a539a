/**
 * Payments through a hosted payment service.
 */
module kelvane.tallowin {
    exports kelvane.tallowin;
    exports kelvane.tallowin.ledger;
}
