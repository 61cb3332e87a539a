/**
 * Payments through a hosted payment service, from Java.
 */
module kelvane.tallowin {
    exports kelvane.tallowin;
}
