// Tests arrive with the unit.
